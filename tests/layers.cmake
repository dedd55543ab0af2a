# The layer check: no unit includes a header of a layer above or beside it.
#   core (wire, packets, scanner, logger, paths, settings)  includes core only
#   tools (decoder, synthetic frames)                        core and tools
#   relay (every other src/ unit)                            core and relay
#   service (service/)                                       core and service
# Inside the relay, the road of a frame runs one way: sources -> scanner ->
# sink. No unit of the sink side includes a source's header; what the sink
# asks of a source (the player of a recording) is an interface of its own.
# Included by tests/CMakeLists.txt, it registers itself as the test "layers";
# run with -P, it checks the tree. Relay units are whatever src/ holds beyond
# the core and tools lists of CMakeLists.txt, so new relay files need nothing
# here.
if(NOT CMAKE_SCRIPT_MODE_FILE)
  string(REPLACE ";" "," core "${KORB_CORE_SOURCES};${KORB_CORE_HEADERS}")
  string(REPLACE ";" "," tools "${KORB_TOOLS_SOURCES}")
  add_test(NAME layers COMMAND ${CMAKE_COMMAND} -DSOURCE_DIR=${CMAKE_SOURCE_DIR} -DCORE=${core}
    -DTOOLS=${tools} -P ${CMAKE_CURRENT_LIST_FILE})
  return()
endif()

cmake_policy(VERSION 3.16)

# A listed source stands for its header too.
function(stems out list)
  string(REPLACE "," ";" files "${list}")
  set(result)
  foreach(f ${files})
    string(REGEX REPLACE "\\.(cpp|h)$" "" stem "${f}")
    list(APPEND result ${stem})
  endforeach()
  set(${out} ${result} PARENT_SCOPE)
endfunction()
stems(core_stems "${CORE}")
stems(tools_stems "${TOOLS}")

function(layer_of out file)
  string(REGEX REPLACE "\\.(cpp|h)$" "" stem "${file}")
  if(file MATCHES "^logger/" OR stem IN_LIST core_stems)
    set(${out} core PARENT_SCOPE)
  elseif(stem IN_LIST tools_stems)
    set(${out} tools PARENT_SCOPE)
  elseif(file MATCHES "^src/")
    set(${out} relay PARENT_SCOPE)
  elseif(file MATCHES "^service/")
    set(${out} service PARENT_SCOPE)
  else()
    set(${out} other PARENT_SCOPE)
  endif()
endfunction()

set(sink_units src/korb_rdv_wsserver src/korb_rdv_fanout src/korb_rdv_ws_client src/korb_rdv_ws_listener
  src/korb_rdv_tls_listener src/korb_rdv_tls_socket src/korb_rdv_tls src/korb_rdv_client_link
  src/korb_rdv_client_socket src/korb_rdv_command src/korb_rdv_player src/korb_rdv_mqtt_publisher src/korb_rdv_http
  src/korb_rdv_access src/korb_rdv_http_service src/korb_rdv_histogram)
set(source_units src/korb_rdv_source src/korb_rdv_playback src/korb_rdv_udp_cli src/korb_rdv_tcp_cli
  src/korb_rdv_mqtt_edge)

set(allowed_core core)
set(allowed_tools core tools)
set(allowed_relay core relay)
set(allowed_service core service)

file(GLOB_RECURSE files RELATIVE ${SOURCE_DIR}
  ${SOURCE_DIR}/src/*.h ${SOURCE_DIR}/src/*.cpp ${SOURCE_DIR}/logger/*.h ${SOURCE_DIR}/logger/*.cpp
  ${SOURCE_DIR}/service/*.h ${SOURCE_DIR}/service/*.cpp)
set(faults 0)
foreach(file ${files})
  layer_of(from ${file})
  file(STRINGS ${SOURCE_DIR}/${file} includes REGEX "^[ \t]*#[ \t]*include[ \t]*\"")
  foreach(line ${includes})
    string(REGEX REPLACE "^[^\"]*\"([^\"]+)\".*$" "\\1" header "${line}")
    layer_of(to ${header})
    if(NOT to STREQUAL "other" AND NOT to IN_LIST allowed_${from})
      message("${file}: ${from} includes ${header} (${to})")
      math(EXPR faults "${faults} + 1")
    endif()
    string(REGEX REPLACE "\\.(cpp|h)$" "" from_stem "${file}")
    string(REGEX REPLACE "\\.(cpp|h)$" "" to_stem "${header}")
    if(from_stem IN_LIST sink_units AND to_stem IN_LIST source_units)
      message("${file}: the sink includes the source ${header}")
      math(EXPR faults "${faults} + 1")
    endif()
  endforeach()
endforeach()
list(LENGTH files count)
if(faults GREATER 0)
  message(FATAL_ERROR "${faults} include(s) against the layers")
endif()
message("layers: ${count} files, every include within its layer, the sink apart from the sources")
