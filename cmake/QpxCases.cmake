# Tests that are cases of a script run.sh in the folder of the caller:
#
#   qpx_cases(<prefix> <seconds> CASES <case>... ARGUMENTS <argument>...)
#
# makes each a test "<prefix>: <case>" with that time limit, which runs "run.sh <case> <argument>...".

function(qpx_cases prefix seconds)
  cmake_parse_arguments(PARSE_ARGV 2 arg "" "" "CASES;ARGUMENTS")
  foreach(case ${arg_CASES})
    add_test(NAME "${prefix}: ${case}"
      COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/run.sh ${case} ${arg_ARGUMENTS})
    set_tests_properties("${prefix}: ${case}" PROPERTIES TIMEOUT ${seconds})
  endforeach()
endfunction()
