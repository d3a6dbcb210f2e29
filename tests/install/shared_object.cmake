# File name, soname, word size, position independence and hardening of the library.

cmake_minimum_required(VERSION 3.25)
include(${CMAKE_CURRENT_LIST_DIR}/run.cmake)

get_filename_component(name ${LIBRARY} NAME)
if(NOT name STREQUAL "libqpxclient.so.10.1.0")
  message(FATAL_ERROR "the library's file is ${name}")
endif()

function(expect text pattern)
  if(NOT text MATCHES "${pattern}")
    message(FATAL_ERROR "no \"${pattern}\" in:\n${text}")
  endif()
endfunction()
function(refuse text pattern)
  if(text MATCHES "${pattern}")
    message(FATAL_ERROR "\"${pattern}\" in:\n${text}")
  endif()
endfunction()

run(header ${READELF} -W -h ${LIBRARY})
expect("${header}" "Class: +ELF${BITS}\n")
expect("${header}" "Type: +DYN ")

run(dynamic ${READELF} -W -d ${LIBRARY})
expect("${dynamic}" "\\(SONAME\\) +Library soname: \\[libqpxclient\\.so\\.10\\]")
expect("${dynamic}" "BIND_NOW")
refuse("${dynamic}" "TEXTREL") # position independent: the text is never relocated
refuse("${dynamic}" "RPATH|RUNPATH")

run(segments ${READELF} -W -l ${LIBRARY})
expect("${segments}" "GNU_RELRO")
expect("${segments}" "GNU_STACK[^\n]* RW ") # no executable stack
refuse("${segments}" "LOAD[^\n]* RWE ")
