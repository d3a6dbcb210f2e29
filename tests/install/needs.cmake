# The C library is all that the library needs: no C++ runtime, no other object.

cmake_minimum_required(VERSION 3.25)
include(${CMAKE_CURRENT_LIST_DIR}/run.cmake)

run(dynamic ${READELF} -W -d ${LIBRARY})
string(REGEX MATCHALL "\\(NEEDED\\)[^\n]*" needed "${dynamic}")
list(TRANSFORM needed REPLACE ".*\\[([^]]*)\\].*" "\\1")
expect_same_list("needed libraries" "libc.so.6" "${needed}")

# A weak reference may stay unresolved; every other one is the C library's, and C.
run(symbols ${NM} -D --undefined-only --with-symbol-versions ${LIBRARY})
string(REGEX REPLACE "\n$" "" symbols "${symbols}")
string(REPLACE "\n" ";" symbols "${symbols}")
foreach(symbol ${symbols})
  if(symbol MATCHES "^ +w ")
    continue()
  endif()
  if(NOT symbol MATCHES "^ +U [^@]+@GLIBC_")
    message(FATAL_ERROR "not of the C library:${symbol}")
  endif()
endforeach()
if(symbols MATCHES " (_Z|__gxx_|__cxa_throw|__cxa_begin_catch|__cxa_guard|_Unwind_)")
  message(FATAL_ERROR "a symbol of the C++ runtime among:\n${symbols}")
endif()
