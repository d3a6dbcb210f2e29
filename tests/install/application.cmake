# Builds a C program with the tree's headers and library and no other option, and runs it.

cmake_minimum_required(VERSION 3.25)
include(${CMAKE_CURRENT_LIST_DIR}/run.cmake)
include(${CMAKE_CURRENT_LIST_DIR}/run_application.cmake)

set(options -m${BITS} -I${TREE}/${INCLUDEDIR})
set(link -L${TREE}/${LIBDIR} -lqpxclient)
if(SANITIZE)
  # The sanitizer's runtime must come first in the process.
  list(APPEND options -fsanitize=${SANITIZE})
endif()
run(ignored ${CC} ${options} ${SOURCE} -o ${PROGRAM} ${link})
run_application(${PROGRAM} ${TREE}/${LIBDIR})
