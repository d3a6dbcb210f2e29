# GoogleTest, built from Debian's source package in the word size of the tests and natively, and
#
#   qpx_gtest(<name> [NATIVE] SOURCES <file>... [LIBRARIES <library>...])
#
# which makes a test program whose cases each run in a process of their own, with a time limit.

set(QPX_GOOGLETEST_SOURCE /usr/src/googletest CACHE PATH "Source of GoogleTest (Debian: googletest)")
set(QPX_TEST_LIMIT 120 CACHE STRING "Seconds that one test case may take")
if(NOT EXISTS ${QPX_GOOGLETEST_SOURCE}/googletest/src/gtest-all.cc)
  message(FATAL_ERROR "No GoogleTest in ${QPX_GOOGLETEST_SOURCE}. "
    "Install the Debian package googletest, or set QPX_GOOGLETEST_SOURCE.")
endif()
include(GoogleTest)

foreach(variant client_side common)
  set(library qpx_gtest_${variant})
  add_library(${library} STATIC EXCLUDE_FROM_ALL
    ${QPX_GOOGLETEST_SOURCE}/googletest/src/gtest-all.cc
    ${QPX_GOOGLETEST_SOURCE}/googletest/src/gtest_main.cc
    ${QPX_GOOGLETEST_SOURCE}/googlemock/src/gmock-all.cc)
  target_include_directories(${library} PRIVATE
    ${QPX_GOOGLETEST_SOURCE}/googletest ${QPX_GOOGLETEST_SOURCE}/googlemock)
  target_include_directories(${library} SYSTEM PUBLIC
    ${QPX_GOOGLETEST_SOURCE}/googletest/include ${QPX_GOOGLETEST_SOURCE}/googlemock/include)
  target_compile_options(${library} PRIVATE -w)
  target_link_libraries(${library} PUBLIC qpx_${variant} -pthread)
endforeach()

function(qpx_gtest name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "NATIVE" "" "SOURCES;LIBRARIES")
  set(variant client_side)
  if(arg_NATIVE)
    set(variant common)
  endif()
  add_executable(${name} ${arg_SOURCES})
  # Test cases need no speed, and compile in half the time without optimisation.
  target_compile_options(${name} PRIVATE -O0)
  # Undefined behaviour is looked for in what is tested: with the notes of every check in the cases
  # themselves, a process of theirs is at work for longer before its case than in it.
  if(QPX_SANITIZE MATCHES "undefined")
    set_property(SOURCE ${arg_SOURCES} APPEND PROPERTY COMPILE_OPTIONS -fno-sanitize=undefined)
  endif()
  target_link_libraries(${name} PRIVATE ${arg_LIBRARIES} qpx_gtest_${variant})
  gtest_discover_tests(${name}
    TEST_PREFIX "${name}: "
    DISCOVERY_TIMEOUT 60
    PROPERTIES TIMEOUT ${QPX_TEST_LIMIT})
endfunction()
