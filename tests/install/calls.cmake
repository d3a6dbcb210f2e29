# The library exports these calls, typed out here, each of version QPX_10, and no other symbol.

cmake_minimum_required(VERSION 3.25)
include(${CMAKE_CURRENT_LIST_DIR}/run.cmake)
include(${CMAKE_CURRENT_LIST_DIR}/exported.cmake)

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

exported_calls(exported)
list(TRANSFORM calls APPEND "@@QPX_10")
expect_same_list("exported calls" "${calls}" "${exported}")
