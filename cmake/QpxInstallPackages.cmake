# Part of the installation: what pkg-config and CMake read to find the library, filled with the
# folders that things are installed to. Sets no variable but those that begin with QPX_.

# whole_path(<variable> <folder>): a folder under the prefix, or one that is given as a whole path.
function(whole_path variable folder)
  cmake_path(ABSOLUTE_PATH folder BASE_DIRECTORY "${CMAKE_INSTALL_PREFIX}" NORMALIZE)
  set(${variable} "${folder}" PARENT_SCOPE)
endfunction()

math(EXPR QPX_OTHER_BITS "96 - ${QPX_BITS}")
math(EXPR QPX_POINTER_SIZE "${QPX_BITS} / 8")
string(REGEX REPLACE "(.)/+$" "\\1" QPX_PREFIX "${CMAKE_INSTALL_PREFIX}")
whole_path(QPX_FULL_LIBDIR "${QPX_LIBDIR}")
whole_path(QPX_FULL_INCLUDEDIR "${QPX_INCLUDEDIR}")
whole_path(QPX_FULL_DATADIR "${QPX_DATADIR}")

# The package of CMake is where CMake looks for every program, whatever its word size: one that it
# does not suit is told so. In it folders are told from its own on, so that a tree can be moved.
whole_path(QPX_CMAKEDIR lib/cmake/qpxclient${QPX_BITS})
cmake_path(RELATIVE_PATH QPX_FULL_LIBDIR BASE_DIRECTORY "${QPX_CMAKEDIR}"
  OUTPUT_VARIABLE QPX_LIBDIR_FROM_HERE)
cmake_path(RELATIVE_PATH QPX_FULL_INCLUDEDIR BASE_DIRECTORY "${QPX_CMAKEDIR}"
  OUTPUT_VARIABLE QPX_INCLUDEDIR_FROM_HERE)

foreach(QPX_FILE qpxclient.pc qpxclient-config.cmake qpxclient-config-version.cmake)
  configure_file("${QPX_TEMPLATES}/${QPX_FILE}.in" "${QPX_SCRATCH}/${QPX_FILE}" @ONLY)
endforeach()

# pkg-config finds the one by the folder of the word size, the other by a name of its own, in a
# folder that it always looks into.
file(INSTALL "${QPX_SCRATCH}/qpxclient.pc" DESTINATION "${QPX_FULL_LIBDIR}/pkgconfig")
file(INSTALL "${QPX_SCRATCH}/qpxclient.pc" DESTINATION "${QPX_FULL_DATADIR}/pkgconfig"
  RENAME qpxclient${QPX_BITS}.pc)
file(INSTALL "${QPX_SCRATCH}/qpxclient-config.cmake"
  "${QPX_SCRATCH}/qpxclient-config-version.cmake" DESTINATION "${QPX_CMAKEDIR}")
