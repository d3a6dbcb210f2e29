# Part of the installation: writes the packages' files for the prefix that they go to.

set(prefix ${CMAKE_INSTALL_PREFIX})
foreach(kind folder include)
  set(${kind}dir ${standin_${kind}})
  if(NOT IS_ABSOLUTE "${${kind}dir}")
    set(${kind}dir ${prefix}/${${kind}dir})
  endif()
endforeach()
file(RELATIVE_PATH include_from_package ${folderdir}/cmake/qpxstandin ${includedir})
foreach(file qpxstandin-config.cmake qpxstandin-config-version.cmake qpxstandin.pc
    qpxstandin-core.pc)
  file(READ ${standin_package}/${file}.in text)
  string(REPLACE "%prefix%" "${prefix}" text "${text}")
  string(REPLACE "%libdir%" "${folderdir}" text "${text}")
  string(REPLACE "%includedir%" "${includedir}" text "${text}")
  string(REPLACE "%include_from_package%" "${include_from_package}" text "${text}")
  file(WRITE ${standin_package}/${file} "${text}")
endforeach()
