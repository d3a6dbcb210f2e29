# Part of the installation: what pkg-config and CMake read to find the stand-in, filled with the
# folders that things are installed to. Sets no variable but those that begin with QPX_STANDIN_.

# whole_standin_path(<variable> <folder>): under the prefix, or one that is given as a whole path.
function(whole_standin_path variable folder)
  cmake_path(ABSOLUTE_PATH folder BASE_DIRECTORY "${CMAKE_INSTALL_PREFIX}" NORMALIZE)
  set(${variable} "${folder}" PARENT_SCOPE)
endfunction()

math(EXPR QPX_STANDIN_OTHER_BITS "96 - ${QPX_STANDIN_BITS}")
math(EXPR QPX_STANDIN_POINTER "${QPX_STANDIN_BITS} / 8")
string(REGEX REPLACE "(.)/+$" "\\1" QPX_STANDIN_PREFIX "${CMAKE_INSTALL_PREFIX}")
whole_standin_path(QPX_STANDIN_LIBDIR "${QPX_STANDIN_LIBDIR}")
whole_standin_path(QPX_STANDIN_INCLUDEDIR "${QPX_STANDIN_INCLUDEDIR}")
whole_standin_path(QPX_STANDIN_DATADIR "${QPX_STANDIN_DATADIR}")

# CMake looks there for every project, whatever its word size: one that a package does not suit is
# told so. Folders are told from the package's own on, so that a tree can be moved.
whole_standin_path(QPX_STANDIN_CMAKEDIR lib/cmake/qpxstandin${QPX_STANDIN_BITS})
foreach(QPX_STANDIN_FOLDER LIBDIR INCLUDEDIR)
  cmake_path(RELATIVE_PATH QPX_STANDIN_${QPX_STANDIN_FOLDER} BASE_DIRECTORY
    "${QPX_STANDIN_CMAKEDIR}" OUTPUT_VARIABLE QPX_STANDIN_${QPX_STANDIN_FOLDER}_FROM_HERE)
endforeach()
foreach(QPX_STANDIN_FILE qpxstandin-config.cmake qpxstandin-config-version.cmake qpxstandin.pc
    qpxstandin-core.pc)
  configure_file("${QPX_STANDIN_TEMPLATES}/${QPX_STANDIN_FILE}.in"
    "${QPX_STANDIN_SCRATCH}/${QPX_STANDIN_FILE}" @ONLY)
endforeach()
file(INSTALL "${QPX_STANDIN_SCRATCH}/qpxstandin-config.cmake"
  "${QPX_STANDIN_SCRATCH}/qpxstandin-config-version.cmake" DESTINATION "${QPX_STANDIN_CMAKEDIR}")

# pkg-config finds the one by the folder of the word size, the other by a name of its own, in a
# folder that it always looks into.
foreach(QPX_STANDIN_FILE qpxstandin qpxstandin-core)
  file(INSTALL "${QPX_STANDIN_SCRATCH}/${QPX_STANDIN_FILE}.pc"
    DESTINATION "${QPX_STANDIN_LIBDIR}/pkgconfig")
  file(INSTALL "${QPX_STANDIN_SCRATCH}/${QPX_STANDIN_FILE}.pc"
    DESTINATION "${QPX_STANDIN_DATADIR}/pkgconfig"
    RENAME ${QPX_STANDIN_FILE}${QPX_STANDIN_BITS}.pc)
endforeach()
