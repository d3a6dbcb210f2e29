# run(<variable> <command>...): the command's output; the test fails when the command does.
function(run variable)
  execute_process(COMMAND ${ARGN}
    RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE errors)
  if(NOT result EQUAL 0)
    list(JOIN ARGN " " command)
    message(FATAL_ERROR "${command}\nfailed (${result}):\n${output}${errors}")
  endif()
  set(${variable} "${output}" PARENT_SCOPE)
endfunction()

# expect_same_list(<what> <expected list> <actual list>): both in any order.
function(expect_same_list what expected actual)
  list(SORT expected)
  list(SORT actual)
  if(NOT expected STREQUAL actual)
    list(JOIN expected "\n  " expected)
    list(JOIN actual "\n  " actual)
    message(FATAL_ERROR "${what}\nexpected:\n  ${expected}\nfound:\n  ${actual}")
  endif()
endfunction()
