# The places at which tests hold threads are not in the library that is shipped.

cmake_minimum_required(VERSION 3.25)
include(${CMAKE_CURRENT_LIST_DIR}/run.cmake)

run(symbols ${NM} -C ${LIBRARY})
# A function that every version has, and that is not exported; it guards the look at the symbols.
if(NOT symbols MATCHES " clapiRegisterRequest\\(")
  message(FATAL_ERROR "clapiRegisterRequest is not among the symbols of ${LIBRARY}")
endif()
string(REGEX MATCHALL "[^\n]*(clapiReached|SchedulePoint)[^\n]*" points "${symbols}")
if(points)
  list(JOIN points "\n  " points)
  message(FATAL_ERROR "points of the schedule tests in ${LIBRARY}\n  ${points}")
endif()
