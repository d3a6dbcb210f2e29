# Where the stand-in is installed: the libraries beside the library, the native ones in the folder
# of the system's own word size. What pkg-config and CMake read is found as that of the library is,
# whatever the word size. The prefix may be given as late as to "cmake --install", so what depends
# on it is written there.

# standin_install(<interface> <core> <bits> <folder under /usr> <folder elsewhere>)
function(standin_install interface core bits folder_of_system folder)
  install(CODE "
    set(QPX_STANDIN_BITS ${bits})
    set(QPX_STANDIN_VERSION ${PROJECT_VERSION})
    set(QPX_STANDIN_VERSION_MAJOR ${PROJECT_VERSION_MAJOR})
    set(QPX_STANDIN_LIBDIR \"${folder}\")
    if(CMAKE_INSTALL_PREFIX MATCHES \"^/usr/?\$\")
      set(QPX_STANDIN_LIBDIR \"${folder_of_system}\")
    endif()
    set(QPX_STANDIN_INCLUDEDIR \"${CMAKE_INSTALL_INCLUDEDIR}\")
    set(QPX_STANDIN_DATADIR \"${CMAKE_INSTALL_DATADIR}\")
    set(QPX_STANDIN_TEMPLATES \"${CMAKE_CURRENT_SOURCE_DIR}/package\")
    set(QPX_STANDIN_SCRATCH \"${CMAKE_CURRENT_BINARY_DIR}/package-${bits}\")"
    COMPONENT standin)
  install(TARGETS ${interface} LIBRARY DESTINATION "\${QPX_STANDIN_LIBDIR}" COMPONENT standin)
  install(FILES $<TARGET_FILE:${core}> DESTINATION "\${QPX_STANDIN_LIBDIR}"
    RENAME libqpxstandin-core.a COMPONENT standin)
  install(SCRIPT package/write.cmake COMPONENT standin)
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
