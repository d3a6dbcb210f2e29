# A foreign project builds its tests against the installed stand-in and runs them: in C and in C++,
# with CMake and with pkg-config, in each word size of the tree. SIZES has "<bits>=<folder of the
# libraries>" of each, first that of the client library, with which the example of the document
# DOCUMENT is built and run.

cmake_minimum_required(VERSION 3.25)
include(${CMAKE_CURRENT_LIST_DIR}/run.cmake)

file(REMOVE_RECURSE ${BUILD})
file(MAKE_DIRECTORY ${BUILD})

# Options of some of the packages in a folder, without what the machine has installed.
function(options_of packages folder variable)
  run(output ${CMAKE_COMMAND} -E env --unset=PKG_CONFIG_PATH
    PKG_CONFIG_LIBDIR=${TREE}/${folder}/pkgconfig ${PKG_CONFIG} --cflags --libs ${packages})
  separate_arguments(output UNIX_COMMAND "${output}")
  set(${variable} "${output}" PARENT_SCOPE)
endfunction()

function(expect_output output expected)
  if(NOT output STREQUAL "${expected}\n")
    message(FATAL_ERROR "expected \"${expected}\", got:\n${output}")
  endif()
endfunction()

function(test_with_cmake bits folder)
  set(build ${BUILD}/cmake-${bits})
  run(ignored ${CMAKE_COMMAND} -S ${SOURCE} -B ${build} -G ${GENERATOR}
    -DCMAKE_C_COMPILER=${CC} -DCMAKE_CXX_COMPILER=${CXX}
    -DCMAKE_C_FLAGS=-m${bits} -DCMAKE_CXX_FLAGS=-m${bits} -DCMAKE_PREFIX_PATH=${TREE})
  file(STRINGS ${build}/CMakeCache.txt found REGEX "^qpxstandin_DIR:")
  if(NOT found STREQUAL "qpxstandin_DIR:PATH=${TREE}/lib/cmake/qpxstandin${bits}")
    message(FATAL_ERROR "with ${bits} bits CMake has found ${found}")
  endif()
  run(ignored ${CMAKE_COMMAND} --build ${build})
  run(ignored ${CMAKE_COMMAND} -E chdir ${build} ${CMAKE_CTEST_COMMAND} --output-on-failure)
endfunction()

# By the folder of the word size, and by a name that has it.
function(test_with_pkg_config bits folder)
  set(run_it ${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${TREE}/${folder})
  foreach(place ${folder}= share=${bits})
    string(REGEX REPLACE "=.*" "" packages ${place})
    string(REGEX REPLACE ".*=" "" suffix ${place})
    options_of(qpxstandin${suffix} ${packages} options)
    run(ignored ${CC} ${SOURCE}/in_c.c -o ${BUILD}/in_c-${bits} ${options})
    run(output ${run_it} ${BUILD}/in_c-${bits} ${SOURCE}/answers.toml)
    expect_output("${output}" "tested in C")
    options_of("qpxstandin${suffix};qpxstandin-core${suffix}" ${packages} options)
    run(ignored ${CXX} -std=c++17 ${SOURCE}/in_cpp.cpp -o ${BUILD}/in_cpp-${bits} ${options})
    run(output ${run_it} ${BUILD}/in_cpp-${bits})
    expect_output("${output}" "tested in C++")
  endforeach()
endfunction()

# A project of a word size that is not there is told what to do.
function(test_wrong_word_size bits)
  math(EXPR other "96 - ${bits}")
  set(build ${BUILD}/wrong-${bits})
  execute_process(COMMAND ${CMAKE_COMMAND} -S ${SOURCE} -B ${build} -G ${GENERATOR}
    -DCMAKE_C_COMPILER=${CC} -DCMAKE_CXX_COMPILER=${CXX}
    -DCMAKE_C_FLAGS=-m${other} -DCMAKE_CXX_FLAGS=-m${other}
    -Dqpxstandin_DIR=${TREE}/lib/cmake/qpxstandin${bits}
    OUTPUT_VARIABLE output ERROR_VARIABLE output RESULT_VARIABLE result)
  string(REGEX REPLACE "[ \n]+" " " output "${output}")
  set(advice "for programs of ${bits} bits, and this one is compiled for ${other}: compile it with \
-m${bits}")
  string(FIND "${output}" "${advice}" place)
  if(result EQUAL 0 OR place EQUAL -1)
    message(FATAL_ERROR "with ${other} bits nobody is told \"${advice}\":\n${output}")
  endif()
endfunction()

# The C interface exports what its header declares, and nothing else.
function(test_exports folder)
  file(READ ${TREE}/include/standin.h text)
  string(REGEX REPLACE "/\\*[^*]*\\*+([^/*][^*]*\\*+)*/" "" text "${text}")
  string(REGEX MATCHALL "standin_[a-z_]+\\(" declared "${text}")
  list(TRANSFORM declared REPLACE "\\(" "")
  run(symbols ${NM} -D --defined-only --format=posix ${TREE}/${folder}/libqpxstandin.so)
  string(REGEX MATCHALL "(^|\n)[^ ]+ [^A]" exported "${symbols}")
  list(TRANSFORM exported REPLACE "\n?([^ @]+)[^ ]* T" "\\1")
  expect_same_list("exported calls" "${declared}" "${exported}")
endfunction()

# The example as it stands in the document, in strict C99, and the header alone in strict C89.
function(test_document bits folder)
  file(READ ${DOCUMENT} text)
  if(NOT text MATCHES "```c\n(/\\* price_test\\.c [^`]*)```")
    message(FATAL_ERROR "there is no price_test.c in ${DOCUMENT}")
  endif()
  set(example "${CMAKE_MATCH_1}")
  file(WRITE ${BUILD}/price_test.c "${example}")
  file(STRINGS ${BUILD}/price_test.c lines)
  list(LENGTH lines count)
  if(count GREATER 30)
    message(FATAL_ERROR "price_test.c has ${count} lines")
  endif()
  options_of(qpxstandin ${folder} options)
  file(WRITE ${BUILD}/alone.c
    "#include <standin.h>\nint main(void) { return standin_stop(NULL); }\n")
  run(ignored ${CC} -m${bits} -std=c89 -Wall -Wextra -Wpedantic -Werror ${BUILD}/alone.c
    -o ${BUILD}/alone ${options})
  run(ignored ${CC} -m${bits} -std=c99 -Wall -Wextra -Wpedantic -Werror ${BUILD}/price_test.c
    -o ${BUILD}/price_test ${options} -lqpxclient)
  run(output ${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${TREE}/${folder} ${BUILD}/price_test)
  expect_output("${output}" "good")
endfunction()

separate_arguments(SIZES)
list(GET SIZES 0 first)
foreach(size IN LISTS SIZES)
  string(REGEX MATCH "^([0-9]+)=(.*)$" ignored ${size})
  set(bits ${CMAKE_MATCH_1})
  set(folder ${CMAKE_MATCH_2})
  test_with_cmake(${bits} ${folder})
  test_with_pkg_config(${bits} ${folder})
  test_exports(${folder})
  test_wrong_word_size(${bits})
  if(size STREQUAL first)
    test_document(${bits} ${folder})
  endif()
endforeach()
