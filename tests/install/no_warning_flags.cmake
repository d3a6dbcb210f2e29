# No target hands on a warning flag to what links it. FLAGS names a file with a line for each
# target: its name, and the options that come with linking it.

cmake_minimum_required(VERSION 3.25)
include(${CMAKE_CURRENT_LIST_DIR}/run.cmake)

file(STRINGS ${FLAGS} lines)
set(named)
foreach(line ${lines})
  string(REGEX MATCH "^[a-z_]+" name "${line}")
  list(APPEND named ${name})
  if(line MATCHES " -(W|pedantic)")
    message(SEND_ERROR "what links a target takes over its warning flags: ${line}")
  endif()
endforeach()

separate_arguments(TARGETS)
expect_same_list("targets that were looked at" "${TARGETS}" "${named}")
# The word size has to come with the library, or the file does not hold what it should.
if(NOT "${lines}" MATCHES "gateway_core [^;]*-m(32|64)")
  message(FATAL_ERROR "gateway_core hands on no word size:\n${lines}")
endif()
