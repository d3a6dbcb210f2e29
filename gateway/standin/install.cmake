# Where the stand-in is installed: the libraries and their packages beside the library, the native
# ones in the folder of the system's own word size. The prefix may be given as late as to
# "cmake --install", so what depends on it is written there.

# standin_install(<interface> <core> <bits> <folder under /usr> <folder elsewhere>)
function(standin_install interface core bits folder_of_system folder)
  set(QPX_STANDIN_BITS ${bits})
  math(EXPR QPX_STANDIN_POINTER "${bits} / 8")
  set(package ${CMAKE_CURRENT_BINARY_DIR}/package-${bits})
  foreach(file qpxstandin-config.cmake qpxstandin-config-version.cmake qpxstandin.pc
      qpxstandin-core.pc)
    configure_file(package/${file}.in ${package}/${file}.in @ONLY)
  endforeach()
  install(CODE "
    set(standin_folder \"${folder}\")
    if(CMAKE_INSTALL_PREFIX MATCHES \"^/usr/?\$\")
      set(standin_folder \"${folder_of_system}\")
    endif()
    set(standin_package \"${package}\")
    set(standin_include \"${CMAKE_INSTALL_INCLUDEDIR}\")
    include(\"${CMAKE_CURRENT_SOURCE_DIR}/package/write.cmake\")"
    COMPONENT standin)
  install(TARGETS ${interface} LIBRARY DESTINATION "\${standin_folder}" COMPONENT standin)
  install(FILES $<TARGET_FILE:${core}> DESTINATION "\${standin_folder}"
    RENAME libqpxstandin-core.a COMPONENT standin)
  install(FILES ${package}/qpxstandin-config.cmake ${package}/qpxstandin-config-version.cmake
    DESTINATION "\${standin_folder}/cmake/qpxstandin" COMPONENT standin)
  install(FILES ${package}/qpxstandin.pc ${package}/qpxstandin-core.pc
    DESTINATION "\${standin_folder}/pkgconfig" COMPONENT standin)
endfunction()

install(FILES include/standin.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT standin)
install(DIRECTORY ../core/include/standin DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  COMPONENT standin FILES_MATCHING PATTERN "*.h")
standin_install(qpxstandin gateway_core ${QPX_BITS} ${QPX_LIBDIR_OF_SYSTEM} ${CMAKE_INSTALL_LIBDIR})
if(native_is_another)
  set(native_folder lib${native_bits})
  if(CMAKE_LIBRARY_ARCHITECTURE)
    set(native_folder lib/${CMAKE_LIBRARY_ARCHITECTURE})
  endif()
  if(NOT native_folder STREQUAL QPX_LIBDIR_OF_SYSTEM
      AND NOT native_folder STREQUAL CMAKE_INSTALL_LIBDIR)
    standin_install(qpxstandin_native gateway_core_native ${native_bits} ${native_folder}
      ${native_folder})
  endif()
endif()
