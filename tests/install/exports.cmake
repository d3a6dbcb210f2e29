# The library exports exactly the calls that the public headers declare.

cmake_minimum_required(VERSION 3.25)
include(${CMAKE_CURRENT_LIST_DIR}/run.cmake)
include(${CMAKE_CURRENT_LIST_DIR}/exported.cmake)

# What is left of a header without comments and preprocessor lines are its declarations.
function(declared_calls header variable)
  file(READ ${header} text)
  string(REGEX REPLACE "/\\*[^*]*\\*+([^/*][^*]*\\*+)*/" "" text "${text}")
  string(REGEX REPLACE "\n[ \t]*#[^\n]*" "" text "${text}")
  string(REGEX MATCHALL "[A-Za-z_][A-Za-z0-9_]*\\(" calls "${text}")
  list(TRANSFORM calls REPLACE "\\(" "")
  set(${variable} "${calls}" PARENT_SCOPE)
endfunction()

set(declared "")
foreach(header qpxclient qpxclient_eci qpxclient_esi eci_channel)
  declared_calls(${INCLUDE}/${header}.h calls)
  list(APPEND declared ${calls})
endforeach()

exported_calls(exported)
list(TRANSFORM exported REPLACE "@.*" "")
expect_same_list("exported calls" "${declared}" "${exported}")

# Calls that every version has; they guard the reading of the headers above.
foreach(call QPX_openRemoteGatewayConnection QPX_closeGatewayConnection QPX_ECI_Execute
    QPX_getRcString QPX_setAPITraceDataLength)
  if(NOT call IN_LIST exported)
    message(FATAL_ERROR "${call} is not exported")
  endif()
endforeach()
