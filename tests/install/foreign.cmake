# Builds a foreign project that takes this tree in and whose own source is not free of warnings,
# and runs its program.

cmake_minimum_required(VERSION 3.25)
include(${CMAKE_CURRENT_LIST_DIR}/run.cmake)

file(REMOVE_RECURSE ${BUILD})
run(ignored ${CMAKE_COMMAND} -S ${CMAKE_CURRENT_LIST_DIR}/foreign -B ${BUILD} -G ${GENERATOR}
  -DCMAKE_BUILD_TYPE=Debug -DCMAKE_C_FLAGS_DEBUG= -DCMAKE_CXX_FLAGS_DEBUG=
  -DCMAKE_C_COMPILER=${CC} -DCMAKE_CXX_COMPILER=${CXX}
  -DCMAKE_C_COMPILER_LAUNCHER=${LAUNCHER} -DCMAKE_CXX_COMPILER_LAUNCHER=${LAUNCHER}
  -DQPX_SOURCE=${SOURCE} -DQPX_BITS=${BITS})
run(ignored ${CMAKE_COMMAND} --build ${BUILD} --target foreign_program --parallel 2)
run(ignored ${CMAKE_COMMAND} -E env
  --unset=QPX_CLIENT_TRACE_LEVEL --unset=QPX_CLIENT_TRACE_FILE
  --unset=QPX_APPLID --unset=QPX_APPLIDQUALIFIER ${BUILD}/foreign_program)
