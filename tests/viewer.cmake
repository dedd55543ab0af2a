# The browser viewer's page (tools/viewer) in headless Chromium against the
# real relay; it exits 77 (skipped) where Chromium or playwright-core is
# missing. Its packet decoder is tested against the relay's packets by
# tst_korb_rdv_packet.
find_program(KORB_NODE node)
set(KORB_VIEWER_DIR ${CMAKE_SOURCE_DIR}/tools/viewer)
if(KORB_NODE)
  add_test(NAME viewer_page COMMAND ${KORB_NODE} ${KORB_VIEWER_DIR}/test/page.test.js)
  set_tests_properties(viewer_page PROPERTIES TIMEOUT 180 SKIP_RETURN_CODE 77
    ENVIRONMENT "KORB_STREAMER_BIN=$<TARGET_FILE:KorbRdv_streamer>;KORB_TOOLS_BIN_DIR=${CMAKE_BINARY_DIR}/bin;KORB_VIEW_ARTIFACTS_DIR=${CMAKE_BINARY_DIR}/tests/viewer;ASAN_OPTIONS=detect_leaks=1")
else()
  # Keep the test visible as skipped rather than silently absent.
  add_test(NAME viewer_page COMMAND ${CMAKE_COMMAND} -E echo "SKIP: node is not installed")
  set_tests_properties(viewer_page PROPERTIES SKIP_REGULAR_EXPRESSION "SKIP:")
endif()
