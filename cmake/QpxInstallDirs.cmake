# Where things are installed, as GNUInstallDirs says, but for the library, whose word size need not
# be that of the system, and what names its folder. Both word sizes fit under one prefix: under /usr
# each goes where the C library of its own word size is (lib/i386-linux-gnu, lib32 or whatever the
# system has), since its loader looks there; under any other prefix that of 32 bits goes into lib,
# and that of 64 bits into the folder of its architecture in there where the system has such ones,
# and else into lib64. A CMAKE_INSTALL_LIBDIR that is given holds for every prefix.
#
#   qpx_install_library(<target>)
#   qpx_install_packages()   what pkg-config and CMake read to find the library

set(given NO)
if(DEFINED CACHE{CMAKE_INSTALL_LIBDIR})
  if(NOT "$CACHE{CMAKE_INSTALL_LIBDIR}" STREQUAL "$CACHE{QPX_LIBDIR_NOT_GIVEN}")
    set(given YES)
  endif()
endif()
include(GNUInstallDirs)

if(given)
  set(QPX_LIBDIR_OF_SYSTEM ${CMAKE_INSTALL_LIBDIR})
else()
  # What it is by default follows the prefix; only what differs from it is given.
  set(QPX_LIBDIR_NOT_GIVEN "$CACHE{CMAKE_INSTALL_LIBDIR}" CACHE INTERNAL "")
  if(QPX_BITS EQUAL 32)
    set(CMAKE_INSTALL_LIBDIR lib)
  elseif(CMAKE_LIBRARY_ARCHITECTURE)
    set(CMAKE_INSTALL_LIBDIR lib/${CMAKE_LIBRARY_ARCHITECTURE})
  else()
    set(CMAKE_INSTALL_LIBDIR lib64)
  endif()
  execute_process(COMMAND ${CMAKE_C_COMPILER} -m${QPX_BITS} -print-file-name=libc.so.6
    OUTPUT_VARIABLE libc OUTPUT_STRIP_TRAILING_WHITESPACE)
  file(REAL_PATH "${libc}" libc)
  if(libc MATCHES "^(/usr)?/(lib.*)/[^/]+$" AND EXISTS ${libc})
    set(QPX_LIBDIR_OF_SYSTEM ${CMAKE_MATCH_2})
  else()
    set(QPX_LIBDIR_OF_SYSTEM ${CMAKE_INSTALL_LIBDIR})
  endif()
endif()

# The prefix may be given as late as to "cmake --install", so the choice is made there.
function(qpx_install_library target)
  install(CODE "
    set(QPX_LIBDIR \"${CMAKE_INSTALL_LIBDIR}\")
    if(CMAKE_INSTALL_PREFIX MATCHES \"^/usr/?\$\")
      set(QPX_LIBDIR \"${QPX_LIBDIR_OF_SYSTEM}\")
    endif()")
  install(TARGETS ${target} LIBRARY DESTINATION "\${QPX_LIBDIR}")
endfunction()

# Behind qpx_install_library, which sets QPX_LIBDIR.
function(qpx_install_packages)
  install(CODE "
    set(QPX_BITS ${QPX_BITS})
    set(QPX_VERSION ${PROJECT_VERSION})
    set(QPX_VERSION_MAJOR ${PROJECT_VERSION_MAJOR})
    set(QPX_INCLUDEDIR \"${CMAKE_INSTALL_INCLUDEDIR}\")
    set(QPX_DATADIR \"${CMAKE_INSTALL_DATADIR}\")
    set(QPX_TEMPLATES \"${PROJECT_SOURCE_DIR}/cmake\")
    set(QPX_SCRATCH \"${PROJECT_BINARY_DIR}/packages\")")
  install(SCRIPT ${PROJECT_SOURCE_DIR}/cmake/QpxInstallPackages.cmake)
endfunction()
