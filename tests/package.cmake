# The Debian package test builds the package with CPack from this build tree
# into a folder of its own, so it never races `make package`.
target_compile_definitions(tst_korb_package PRIVATE
  KORB_CPACK_COMMAND="${CMAKE_CPACK_COMMAND}"
  KORB_CPACK_CONFIG="${CMAKE_BINARY_DIR}/CPackConfig.cmake"
  KORB_PACKAGE_DIR="${CMAKE_BINARY_DIR}/tests/package"
  KORB_PACKAGE_VERSION="${CPACK_PACKAGE_VERSION}"
  KORB_SANITIZED=$<BOOL:${KORB_SANITIZE}>)
add_dependencies(tst_korb_package ${KORB_PKG_EXECUTABLES} korb_package_data)
