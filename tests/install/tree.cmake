# The installed tree: the public headers as they are, and the library under its three names.

cmake_minimum_required(VERSION 3.25)
include(${CMAKE_CURRENT_LIST_DIR}/run.cmake)

set(public_headers eci_channel.h qpxclient.h qpxclient.hpp qpxclient_eci.h qpxclient_esi.h)
file(GLOB_RECURSE headers RELATIVE ${TREE}/${INCLUDEDIR} ${TREE}/${INCLUDEDIR}/*)
list(FILTER headers EXCLUDE REGEX "^standin(\\.h|/.*)$") # the gateway's, see standin.cmake
expect_same_list("installed headers" "${public_headers}" "${headers}")
file(GLOB_RECURSE headers_anywhere ${TREE}/*.h ${TREE}/*.hpp)
list(FILTER headers_anywhere EXCLUDE REGEX "/${INCLUDEDIR}/standin(\\.h|/[^/]*)$")
list(LENGTH headers_anywhere count)
if(NOT count EQUAL 5)
  message(FATAL_ERROR "headers outside ${INCLUDEDIR}: ${headers_anywhere}")
endif()

foreach(header ${public_headers})
  run(ignored ${CMAKE_COMMAND} -E compare_files
    ${SOURCE_INCLUDE}/${header} ${TREE}/${INCLUDEDIR}/${header})
endforeach()

file(GLOB libraries RELATIVE ${TREE}/${LIBDIR} ${TREE}/${LIBDIR}/lib*)
list(FILTER libraries EXCLUDE REGEX "^libqpxstandin")
expect_same_list("installed libraries"
  "libqpxclient.so;libqpxclient.so.10;libqpxclient.so.10.1.0" "${libraries}")
foreach(link libqpxclient.so libqpxclient.so.10)
  file(REAL_PATH ${TREE}/${LIBDIR}/${link} target)
  if(NOT target MATCHES "/libqpxclient\\.so\\.10\\.1\\.0$")
    message(FATAL_ERROR "${link} leads to ${target}")
  endif()
endforeach()
