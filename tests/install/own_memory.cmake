# The library asks the system neither for a look at memory, which a service may forbid, nor for
# turns in a wait.

cmake_minimum_required(VERSION 3.25)
include(${CMAKE_CURRENT_LIST_DIR}/run.cmake)

run(symbols ${NM} -D --undefined-only ${LIBRARY})
if(NOT symbols MATCHES " pthread_mutex_lock")
  message(FATAL_ERROR "not the symbols that the library needs:\n${symbols}")
endif()
foreach(call process_vm_readv process_vm_writev sched_yield)
  if(symbols MATCHES " ${call}[@\n]")
    message(FATAL_ERROR "the library calls ${call}")
  endif()
endforeach()
