# The library that is shipped does not spend time and memory on the order of locks.

cmake_minimum_required(VERSION 3.25)
include(${CMAKE_CURRENT_LIST_DIR}/run.cmake)

run(symbols ${NM} -C ${LIBRARY})
# A function that every version has, and that is not exported; it guards the look at the symbols.
if(NOT symbols MATCHES " clapiRegisterRequest\\(")
  message(FATAL_ERROR "clapiRegisterRequest is not among the symbols of ${LIBRARY}")
endif()
set(looks "clapiNote(Taken|GivenUp)|clapiCheck(Fork)?Request|clapiCheck(Peer)?Wait")
string(REGEX MATCHALL "[^\n]*(${looks})[^\n]*" checks "${symbols}")
# What a thread holds would be in memory that each thread has for itself.
run(sections ${READELF} -W -l ${LIBRARY})
if(sections MATCHES "\n *TLS ")
  list(APPEND checks "memory of each thread")
endif()
if(checks)
  list(JOIN checks "\n  " checks)
  message(FATAL_ERROR "looks at the order of locks in ${LIBRARY}\n  ${checks}")
endif()
