# run_application(<program> <folder of the library>): runs what was built of application.c, which
# has to say what it should, and nothing to standard error.
function(run_application program folder)
  execute_process(COMMAND ${CMAKE_COMMAND} -E env
    --unset=QPX_CLIENT_TRACE_LEVEL --unset=QPX_CLIENT_TRACE_FILE
    --unset=QPX_APPLID --unset=QPX_APPLIDQUALIFIER
    LD_BIND_NOW=1 LD_LIBRARY_PATH=${folder} ${program}
    RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE errors)

  set(expected "library 10.1.0.0, interface 2.3.0.0
no host: -133 QPX_ERR_NULLADDRESS
opened
called: hello, application
closed
")
  if(NOT result EQUAL 0 OR NOT errors STREQUAL "" OR NOT output STREQUAL expected)
    message(FATAL_ERROR "${program} ended with ${result}\n"
      "expected:\n${expected}printed:\n${output}${errors}")
  endif()
endfunction()
