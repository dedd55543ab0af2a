# Tests of the browser viewer (tools/viewer): its packet decoder under node's
# test runner, and the page in headless Chromium against the real relay. The
# page test exits 77 (skipped) where Chromium or playwright-core is missing.
find_program(KORB_NODE node)
set(KORB_VIEWER_DIR ${CMAKE_SOURCE_DIR}/tools/viewer)
if(KORB_NODE)
  add_test(NAME viewer_decoder COMMAND ${KORB_NODE} --test ${KORB_VIEWER_DIR}/test/decoder.test.js)
  set_tests_properties(viewer_decoder PROPERTIES TIMEOUT 60)

  add_test(NAME viewer_page COMMAND ${KORB_NODE} ${KORB_VIEWER_DIR}/test/page.test.js)
  set_tests_properties(viewer_page PROPERTIES TIMEOUT 180 SKIP_RETURN_CODE 77
    ENVIRONMENT "KORB_STREAMER_BIN=$<TARGET_FILE:KorbRdv_streamer>;KORB_TOOLS_BIN_DIR=${CMAKE_BINARY_DIR}/bin;KORB_VIEW_ARTIFACTS_DIR=${CMAKE_BINARY_DIR}/tests/viewer;ASAN_OPTIONS=detect_leaks=1")
else()
  # Keep the tests visible as skipped rather than silently absent.
  foreach(name viewer_decoder viewer_page)
    add_test(NAME ${name} COMMAND ${CMAKE_COMMAND} -E echo "SKIP: node is not installed")
    set_tests_properties(${name} PROPERTIES SKIP_REGULAR_EXPRESSION "SKIP:")
  endforeach()
endif()
