# A program that was linked with OLD, the library before its symbols had versions, runs with NEW,
# and the loader has nothing to say about it. A program that is linked with NEW asks for QPX_10.

cmake_minimum_required(VERSION 3.25)
include(${CMAKE_CURRENT_LIST_DIR}/run.cmake)
include(${CMAKE_CURRENT_LIST_DIR}/run_application.cmake)

file(REMOVE_RECURSE ${SCRATCH}/run)
foreach(age old new)
  string(TOUPPER ${age} library)
  set(folder ${SCRATCH}/run/${age})
  file(MAKE_DIRECTORY ${folder})
  file(CREATE_LINK ${${library}} ${folder}/libqpxclient.so SYMBOLIC)
  file(CREATE_LINK ${${library}} ${folder}/libqpxclient.so.10 SYMBOLIC)
  run(ignored ${CC} -m${BITS} -I${INCLUDE} ${APPLICATION} -o ${folder}/program
    -L${folder} -lqpxclient)
  run(versions_of_${age} ${READELF} -W -V ${folder}/program)
endforeach()

if(versions_of_old MATCHES "QPX_10")
  message(FATAL_ERROR "the old library has versions:\n${versions_of_old}")
endif()
if(NOT versions_of_new MATCHES "File: libqpxclient\\.so\\.10 [^\n]*\n[^\n]*Name: QPX_10 ")
  message(FATAL_ERROR "the new program asks for no version:\n${versions_of_new}")
endif()
run_application(${SCRATCH}/run/old/program ${SCRATCH}/run/new)
run_application(${SCRATCH}/run/new/program ${SCRATCH}/run/new)
