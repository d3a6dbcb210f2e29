# The table of faults compiles as it is, and does not once a row is missing: for a fault that is
# new, for one whose row is taken out, or for one whose row has lost its name or its sentence.

cmake_minimum_required(VERSION 3.25)

set(enumeration include/standin/misbehaviour.h)
set(table src/faults/fault_table.cpp)
set(complaint "static assertion failed: a fault has no row of its own")

# compile(<result>): compiles a copy of the table, with the copy of the enumeration.
function(compile result)
  execute_process(COMMAND ${CXX} -std=c++17 -fsyntax-only -I${FOLDER}/include -I${FOLDER}/src
      ${FOLDER}/${table}
    RESULT_VARIABLE code OUTPUT_VARIABLE output ERROR_VARIABLE output)
  set(${result} ${code} PARENT_SCOPE)
  set(output "${output}" PARENT_SCOPE)
endfunction()

# expect_refused(<what> <file> <regular expression> <replacement>): after this one change.
function(expect_refused what file from to)
  file(READ ${CORE}/${file} text)
  string(REGEX REPLACE "${from}" "${to}" changed "${text}")
  if(changed STREQUAL text)
    message(FATAL_ERROR "${what}: nothing in ${file} to change")
  endif()
  file(WRITE ${FOLDER}/${file} "${changed}")
  compile(code)
  file(WRITE ${FOLDER}/${file} "${text}")
  if(code EQUAL 0)
    message(SEND_ERROR "${what}, and it compiles")
  elseif(NOT output MATCHES "${complaint}")
    message(SEND_ERROR "${what}, and the compiler says something else:\n${output}")
  endif()
endfunction()

file(REMOVE_RECURSE ${FOLDER})
file(COPY ${CORE}/include ${CORE}/src DESTINATION ${FOLDER})

compile(code)
if(NOT code EQUAL 0)
  message(FATAL_ERROR "the table does not compile as it is:\n${output}")
endif()

expect_refused("a new fault has no row" ${enumeration} "    End // " "    Sneeze,\n    End // ")
expect_refused("the first row is missing" ${table}
  "    {Fault::DropAtConnect,[^}]*}[^}]*},\n" "")
expect_refused("a row in the middle is missing" ${table}
  "    {Fault::FlowError,[^}]*}[^}]*},\n" "")
expect_refused("the last row is missing" ${table} "    {Fault::Truncate,[^}]*}[^}]*},\n" "")
expect_refused("a fault has the row of another" ${table} "{Fault::Ping," "{Fault::Pieces,")
expect_refused("a row has no name" ${table} "\"ping\"" "\"\"")
expect_refused("a row has no sentence" ${table} "\"sends a FLOW_PING before the answer\"" "\"\"")
file(REMOVE_RECURSE ${FOLDER})
