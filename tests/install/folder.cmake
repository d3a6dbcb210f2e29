# The library goes where its loader looks when it is installed for the system; under every other
# prefix that of 32 bits goes into lib, and that of 64 bits beside it, into the folder of
# ARCHITECTURE in there or, where the system has no such folders, into lib64. A folder that is
# given holds for every prefix. PROGRAM is one of the library's word size.

cmake_minimum_required(VERSION 3.25)
include(${CMAKE_CURRENT_LIST_DIR}/run.cmake)

# What is installed need not be a library to show where it goes.
function(configure)
  run(ignored ${CMAKE_COMMAND} -S ${SOURCE} -B ${SCRATCH}/build -G ${GENERATOR}
    -DQPX_BITS=${BITS} ${ARGN})
  foreach(name libqpxclient.so libqpxclient.so.10 libqpxclient.so.10.1.0)
    file(WRITE ${SCRATCH}/build/src/${name} "")
  endforeach()
endfunction()

# expect_folder(<prefix> <folder of the library>)
function(expect_folder prefix folder)
  file(REMOVE_RECURSE ${SCRATCH}/installed)
  run(ignored ${CMAKE_COMMAND} -E env DESTDIR=${SCRATCH}/installed
    ${CMAKE_COMMAND} --install ${SCRATCH}/build --prefix ${prefix})
  file(GLOB_RECURSE libraries RELATIVE ${SCRATCH}/installed ${SCRATCH}/installed/*.so*)
  string(REGEX REPLACE "^/" "" folder ${folder})
  expect_same_list("libraries installed under ${prefix}"
    "${folder}/libqpxclient.so;${folder}/libqpxclient.so.10;${folder}/libqpxclient.so.10.1.0"
    "${libraries}")
endfunction()

run(objects ldd ${PROGRAM})
if(NOT objects MATCHES "libc\\.so\\.6 => ([^ ]+)")
  message(FATAL_ERROR "no C library in:\n${objects}")
endif()
file(REAL_PATH ${CMAKE_MATCH_1} libc)
cmake_path(GET libc PARENT_PATH folder_of_libc)
if(NOT folder_of_libc MATCHES "^/usr/")
  set(folder_of_libc /usr${folder_of_libc}) # a /lib beside that of /usr
endif()

if(BITS EQUAL 32)
  set(folder_elsewhere lib)
elseif(ARCHITECTURE)
  set(folder_elsewhere lib/${ARCHITECTURE})
else()
  set(folder_elsewhere lib64)
endif()

file(REMOVE_RECURSE ${SCRATCH})
configure()
expect_folder(/usr ${folder_of_libc})
expect_folder(/usr/ ${folder_of_libc})
expect_folder(/usr/local /usr/local/${folder_elsewhere})
expect_folder(/opt/qpxclient /opt/qpxclient/${folder_elsewhere})
configure(-DCMAKE_INSTALL_PREFIX=/usr)
expect_folder(/usr ${folder_of_libc})
expect_folder(/opt/qpxclient /opt/qpxclient/${folder_elsewhere})

file(REMOVE_RECURSE ${SCRATCH})
configure(-DCMAKE_INSTALL_LIBDIR=lib)
expect_folder(/usr /usr/lib)
configure()
expect_folder(/usr /usr/lib)
configure(-DCMAKE_INSTALL_LIBDIR=lib/own)
expect_folder(/usr /usr/lib/own)
expect_folder(/opt/qpxclient /opt/qpxclient/lib/own)
file(REMOVE_RECURSE ${SCRATCH})
