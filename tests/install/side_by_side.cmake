# Both word sizes are installed under one prefix, and nothing of the one is in the place of the
# other: pkg-config and CMake find each.

cmake_minimum_required(VERSION 3.25)
include(${CMAKE_CURRENT_LIST_DIR}/run.cmake)

file(REMOVE_RECURSE ${SCRATCH})
set(prefix ${SCRATCH}/prefix)
foreach(bits 32 64)
  # What is installed need not be a library to show where it goes.
  set(build ${SCRATCH}/build${bits})
  run(ignored ${CMAKE_COMMAND} -S ${TREE_SOURCE} -B ${build} -G ${GENERATOR} -DQPX_BITS=${bits})
  foreach(name libqpxclient.so libqpxclient.so.10 libqpxclient.so.10.1.0)
    file(WRITE ${build}/src/${name} "${bits} bits")
  endforeach()
  run(ignored ${CMAKE_COMMAND} --install ${build} --prefix ${prefix})
endforeach()

# expect_library(<word size> <path> <how it was found>)
function(expect_library bits path how)
  file(READ ${path} content)
  if(NOT content STREQUAL "${bits} bits")
    message(FATAL_ERROR "${how} finds for ${bits} bits the library of ${content}: ${path}")
  endif()
endfunction()

foreach(bits 32 64)
  run(folder ${CMAKE_COMMAND} -E env PKG_CONFIG_LIBDIR=${prefix}/share/pkgconfig
    pkg-config --variable=libdir qpxclient${bits})
  string(STRIP "${folder}" folder)
  expect_library(${bits} ${folder}/libqpxclient.so "pkg-config")

  run(output ${CMAKE_COMMAND} -S ${SOURCE} -B ${SCRATCH}/user${bits} -G ${GENERATOR}
    -DCMAKE_C_COMPILER=${CC} -DCMAKE_C_FLAGS=-m${bits} -DAPPLICATION=${APPLICATION}
    -DCMAKE_PREFIX_PATH=${prefix})
  if(NOT output MATCHES "of ${bits} bits at ([^\n]+)")
    message(FATAL_ERROR "no library of ${bits} bits:\n${output}")
  endif()
  expect_library(${bits} ${CMAKE_MATCH_1} "CMake")
endforeach()
file(REMOVE_RECURSE ${SCRATCH})
