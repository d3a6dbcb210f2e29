# Builds a C program with the tree's headers and library and no other option, and runs it.

cmake_minimum_required(VERSION 3.25)
include(${CMAKE_CURRENT_LIST_DIR}/run.cmake)

set(options -m${BITS} -I${TREE}/${INCLUDEDIR})
set(link -L${TREE}/${LIBDIR} -lqpxclient)
if(SANITIZE)
  # The sanitizer's runtime must come first in the process.
  list(APPEND options -fsanitize=${SANITIZE})
endif()
run(ignored ${CC} ${options} ${SOURCE} -o ${PROGRAM} ${link})
run(output ${CMAKE_COMMAND} -E env
  --unset=QPX_CLIENT_TRACE_LEVEL --unset=QPX_CLIENT_TRACE_FILE
  --unset=QPX_APPLID --unset=QPX_APPLIDQUALIFIER
  LD_LIBRARY_PATH=${TREE}/${LIBDIR} ${PROGRAM})

set(expected "library 10.1.0.0, interface 2.3.0.0
no host: -133 QPX_ERR_NULLADDRESS
opened
called: hello, application
closed
")
if(NOT output STREQUAL expected)
  message(FATAL_ERROR "expected:\n${expected}printed:\n${output}")
endif()
