# Where things are installed, as GNUInstallDirs says, but for the library, whose word size need not
# be that of the system: under the prefix /usr it goes where the C library of its own word size is
# (lib/i386-linux-gnu, lib32 or whatever the system has), since its loader looks there; under any
# other prefix into lib. A CMAKE_INSTALL_LIBDIR that is given holds for every prefix.
#
#   qpx_install_library(<target>)

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
  if(QPX_BITS EQUAL 32 OR CMAKE_INSTALL_PREFIX MATCHES "^/usr/?$")
    set(CMAKE_INSTALL_LIBDIR lib)
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
