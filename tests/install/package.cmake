# One CASE of what pkg-config and CMake read: a user's project builds with the installed tree TREE
# and its program runs, or it is told what to do instead.

cmake_minimum_required(VERSION 3.25)
include(${CMAKE_CURRENT_LIST_DIR}/run.cmake)
include(${CMAKE_CURRENT_LIST_DIR}/run_application.cmake)

math(EXPR other_bits "96 - ${BITS}")
file(REMOVE_RECURSE ${SCRATCH})
file(MAKE_DIRECTORY ${SCRATCH})

# user_project(<variable> <word size> [<option>...]): configures it; what CMake said, in one line.
function(user_project variable bits)
  execute_process(COMMAND ${CMAKE_COMMAND} -S ${SOURCE} -B ${SCRATCH}/build -G ${GENERATOR}
    -DCMAKE_C_COMPILER=${CC} -DCMAKE_C_FLAGS=-m${bits} -DAPPLICATION=${APPLICATION}
    -DCMAKE_PREFIX_PATH=${TREE} ${ARGN}
    OUTPUT_VARIABLE output ERROR_VARIABLE output RESULT_VARIABLE result)
  string(REGEX REPLACE "[ \n]+" " " output "${output}")
  set(${variable} "${output}" PARENT_SCOPE)
  set(result ${result} PARENT_SCOPE)
endfunction()

function(expect_text text expected)
  string(FIND "${text}" "${expected}" place)
  if(place EQUAL -1)
    message(FATAL_ERROR "no \"${expected}\" in:\n${text}")
  endif()
endfunction()

function(case_pkg_config)
  foreach(name qpxclient qpxclient${BITS})
    run(options ${CMAKE_COMMAND} -E env PKG_CONFIG_PATH=${TREE}/${LIBDIR}/pkgconfig
      PKG_CONFIG_LIBDIR=${TREE}/share/pkgconfig pkg-config --cflags --libs ${name})
    separate_arguments(options UNIX_COMMAND "${options}")
    run(ignored ${CC} ${APPLICATION} -o ${SCRATCH}/${name} ${options})
    run_application(${SCRATCH}/${name} ${TREE}/${LIBDIR})
  endforeach()
endfunction()

function(case_cmake)
  user_project(output ${BITS})
  expect_text("${output}"
    "version 10.1.0 of ${BITS} bits at ${TREE}/${LIBDIR}/libqpxclient.so.10.1.0")
  run(ignored ${CMAKE_COMMAND} --build ${SCRATCH}/build)
  run_application(${SCRATCH}/build/application ${TREE}/${LIBDIR})
endfunction()

# What the project asks for has to be of the same major version, and not newer.
function(case_version)
  user_project(output ${BITS} -DWANTED=10.1)
  expect_text("${output}" "version 10.1.0 of ${BITS} bits")
  user_project(output ${BITS} -DWANTED=10.1.0)
  expect_text("${output}" "version 10.1.0 of ${BITS} bits")
endfunction()

function(case_other_version)
  foreach(wanted 9 10.2 11)
    user_project(output ${BITS} -DWANTED=${wanted})
    if(result EQUAL 0)
      message(FATAL_ERROR "version ${wanted} is taken to be there:\n${output}")
    endif()
    expect_text("${output}" "qpxclient-config.cmake, version: 10.1.0")
  endforeach()
endfunction()

function(case_wrong_word_size)
  user_project(output ${other_bits})
  if(result EQUAL 0)
    message(FATAL_ERROR "a program of ${other_bits} bits is not refused:\n${output}")
  endif()
  expect_text("${output}" "for programs of ${BITS} bits, and this one is compiled for \
${other_bits}: compile it with -m${BITS} (cmake -DCMAKE_C_FLAGS=-m${BITS} \
-DCMAKE_CXX_FLAGS=-m${BITS}, in an empty build folder), or install the library of ${other_bits} \
bits, too (in its sources: cmake -DQPX_BITS=${other_bits})")
endfunction()

cmake_language(CALL case_${CASE})
file(REMOVE_RECURSE ${SCRATCH})
