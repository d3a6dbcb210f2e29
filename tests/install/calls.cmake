# The library exports these calls, typed out here, and no other symbol.

cmake_minimum_required(VERSION 3.25)
include(${CMAKE_CURRENT_LIST_DIR}/run.cmake)

set(calls
  # versions and state
  QPX_getAPIVersion
  QPX_getDLLVersion
  QPX_dumpState
  # trace
  QPX_getAPITraceLevel
  QPX_setAPITraceLevel
  QPX_setAPITraceFile
  QPX_setAPITraceDataLength
  QPX_setAPITraceDataOffset
  # names of return codes
  QPX_getRcString
  # connections
  QPX_openRemoteGatewayConnection
  QPX_openRemoteGatewayConnectionApplid
  QPX_closeGatewayConnection
  QPX_purgeGatewayConnection
  QPX_closeAllGatewayConnections
  QPX_getApplid
  QPX_getApplidQualifier
  # systems
  QPX_listSystems
  # calls of programs
  QPX_ECI_Execute
  QPX_ECI_Execute_Channel
  # channels
  ECI_createChannel
  ECI_deleteChannel
  ECI_deleteAllChannels
  ECI_getChannelName
  QPX_ECI_dumpChannels
  # containers
  ECI_createContainer
  ECI_deleteContainer
  ECI_getFirstContainer
  ECI_getNextContainer
  ECI_getContainerInfo
  ECI_getContainerData
  ECI_setContainerData
  # passwords
  QPX_ESI_verifyPassword
  QPX_ESI_changePassword
  QPX_ESI_convertTime)

run(symbols ${NM} -D --defined-only --format=posix ${LIBRARY})
string(REGEX MATCHALL "[^\n]+" symbols "${symbols}")
set(exported "")
foreach(symbol ${symbols})
  string(REGEX REPLACE "^([^ ]+) (.).*" "\\1;\\2" name_and_kind "${symbol}")
  list(GET name_and_kind 0 name)
  list(GET name_and_kind 1 kind)
  if(NOT kind STREQUAL "T")
    message(FATAL_ERROR "not a function: ${symbol}")
  endif()
  list(APPEND exported ${name})
endforeach()

expect_same_list("exported calls" "${calls}" "${exported}")
