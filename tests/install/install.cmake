# Installs the build into an empty tree.

cmake_minimum_required(VERSION 3.25)
include(${CMAKE_CURRENT_LIST_DIR}/run.cmake)

file(REMOVE_RECURSE ${TREE})
run(output ${CMAKE_COMMAND} --install ${BUILD} --prefix ${TREE})
