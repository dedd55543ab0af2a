# The Debian package: `make package` builds korbrdv_<version>_<arch>.deb from
# the build tree with CPack (the `package` target), its version being the
# project's own.
#
# The relay resolves ../logs, ../etc and ../tmp against the real directory of
# its executable, so the executables live together in /usr/lib/korbrdv/bin
# and those three names beside bin/ are links to where the filesystem
# hierarchy keeps logs, configuration and state. /usr/bin holds links for the
# PATH. Destinations are relative to a prefix of "/", so an install into any
# staging prefix shows the package's exact tree.

set(KORB_PKG_NAME korbrdv)
set(KORB_PKG_HOME usr/lib/${KORB_PKG_NAME})
set(KORB_PKG_SHARE usr/share/${KORB_PKG_NAME})
set(KORB_PKG_LOG_DIR /var/log/${KORB_PKG_NAME})
set(KORB_PKG_ETC_DIR /etc/${KORB_PKG_NAME})
set(KORB_PKG_STATE_DIR /var/lib/${KORB_PKG_NAME})
set(KORB_PKG_TMP_DIR ${KORB_PKG_STATE_DIR}/tmp)
# The recording folder an operator names with -record= (recording is off until then).
set(KORB_PKG_REC_DIR ${KORB_PKG_STATE_DIR}/rec)
set(KORB_PKG_CONFIG KorbRdv_streamer.ini)
set(KORB_PKG_RECORDING demo.rdv)
# A few seconds of the simulator's default data: enough for the viewer to
# show every group, small enough to ship.
set(KORB_PKG_RECORDING_SECONDS 3)
set(KORB_PKG_EXECUTABLES KorbRdv_streamer korb_rdv_client korb_rdv_sim)
set(KORB_PACKAGE_MAINTAINER "KorbRdv_streamer maintainers <korbrdv@example.org>"
  CACHE STRING "Maintainer field of the Debian package")

set(KORB_PKG_SOURCE ${CMAKE_CURRENT_LIST_DIR})
set(KORB_PKG_BINARY ${CMAKE_BINARY_DIR}/package)
file(MAKE_DIRECTORY ${KORB_PKG_BINARY}/path ${KORB_PKG_BINARY}/home)

install(TARGETS ${KORB_PKG_EXECUTABLES} RUNTIME DESTINATION ${KORB_PKG_HOME}/bin)
foreach(exe ${KORB_PKG_EXECUTABLES})
  file(CREATE_LINK ../lib/${KORB_PKG_NAME}/bin/${exe} ${KORB_PKG_BINARY}/path/${exe} SYMBOLIC)
  install(FILES ${KORB_PKG_BINARY}/path/${exe} DESTINATION usr/bin)
endforeach()
foreach(pair logs:${KORB_PKG_LOG_DIR} etc:${KORB_PKG_ETC_DIR} tmp:${KORB_PKG_TMP_DIR})
  string(REPLACE ":" ";" pair ${pair})
  list(GET pair 0 name)
  list(GET pair 1 target)
  file(CREATE_LINK ${target} ${KORB_PKG_BINARY}/home/${name} SYMBOLIC)
  install(FILES ${KORB_PKG_BINARY}/home/${name} DESTINATION ${KORB_PKG_HOME})
endforeach()

install(FILES ${KORB_PKG_SOURCE}/${KORB_PKG_CONFIG} DESTINATION etc/${KORB_PKG_NAME})
list(TRANSFORM KORB_VIEWER_FILES PREPEND ${CMAKE_SOURCE_DIR}/tools/viewer/ OUTPUT_VARIABLE KORB_PKG_VIEWER)
install(FILES ${KORB_PKG_VIEWER} DESTINATION ${KORB_PKG_SHARE}/viewer)

add_custom_command(OUTPUT ${KORB_PKG_BINARY}/${KORB_PKG_RECORDING}
  COMMAND korb_rdv_sim --write ${KORB_PKG_BINARY}/${KORB_PKG_RECORDING}
          --seconds ${KORB_PKG_RECORDING_SECONDS}
  DEPENDS korb_rdv_sim VERBATIM)
install(FILES ${KORB_PKG_BINARY}/${KORB_PKG_RECORDING} DESTINATION ${KORB_PKG_SHARE})

# A native package's change log: one entry for the version being built.
string(TIMESTAMP KORB_PKG_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)
configure_file(${KORB_PKG_SOURCE}/changelog.in ${KORB_PKG_BINARY}/changelog @ONLY)
add_custom_command(OUTPUT ${KORB_PKG_BINARY}/changelog.gz
  COMMAND gzip -9nkf ${KORB_PKG_BINARY}/changelog
  DEPENDS ${KORB_PKG_BINARY}/changelog VERBATIM)
add_custom_target(korb_package_data ALL
  DEPENDS ${KORB_PKG_BINARY}/${KORB_PKG_RECORDING} ${KORB_PKG_BINARY}/changelog.gz)
install(FILES ${KORB_PKG_SOURCE}/copyright ${KORB_PKG_BINARY}/changelog.gz ${CMAKE_SOURCE_DIR}/README.md
  DESTINATION usr/share/doc/${KORB_PKG_NAME})

# Maintainer scripts and the conffile list, filled with the paths above.
set(KORB_PKG_CONTROL)
foreach(file conffiles postinst prerm postrm)
  configure_file(${KORB_PKG_SOURCE}/${file}.in ${KORB_PKG_BINARY}/${file} @ONLY)
  list(APPEND KORB_PKG_CONTROL ${KORB_PKG_BINARY}/${file})
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ${KORB_PKG_NAME})
# All four parts of the project version, not only the first three.
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "relay of measurement frames to WebSocket clients")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION "KorbRdv_streamer takes packed measurement frames from a device (UDP
datagrams on two ports, a TCP connection it opens, or a recorded file),
throttles them to a send interval and broadcasts them as compact binary
packets to WebSocket clients. The same executable installs and manages its
own systemd service instances (KorbRdv_streamer -i). The package also holds
a command-line client, a device simulator, a browser viewer page and a demo
recording.")
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${KORB_PACKAGE_MAINTAINER}")
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${KORB_PKG_CONTROL})
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_PACKAGING_INSTALL_PREFIX /)
set(CPACK_STRIP_FILES ON)
# Beside the checkout, where `apt install ./korbrdv_*.deb` finds it.
set(CPACK_OUTPUT_FILE_PREFIX ${CMAKE_SOURCE_DIR})
include(CPack)
