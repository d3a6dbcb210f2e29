# How targets are compiled.
#
# Warnings as errors belong to the sources of this tree: they are set for its folders, and nothing
# that links one of its targets takes them over. What has to be handed on, since an object compiled
# otherwise does not fit, stands in two interface libraries:
#   qpx_common       language and sanitizers: for everything
#   qpx_client_side  qpx_common, and the word size of the library: for the library, its tests and
#                    the examples (the gateway's daemon is a native program and takes qpx_common)

add_compile_options(-Wall -Wextra -Wshadow -Wconversion -Wformat=2 -Werror)

add_library(qpx_common INTERFACE)
target_compile_features(qpx_common INTERFACE cxx_std_17)

if(QPX_SANITIZE)
  target_compile_options(qpx_common INTERFACE
    -fsanitize=${QPX_SANITIZE} -fno-omit-frame-pointer)
  if(QPX_SANITIZE MATCHES "undefined")
    target_compile_options(qpx_common INTERFACE -fno-sanitize-recover=undefined)
  endif()
  target_link_options(qpx_common INTERFACE -fsanitize=${QPX_SANITIZE})
endif()

add_library(qpx_client_side INTERFACE)
target_link_libraries(qpx_client_side INTERFACE qpx_common)
target_compile_definitions(qpx_client_side INTERFACE _FILE_OFFSET_BITS=64 _TIME_BITS=64)
if(QPX_CHECK_LOCKS)
  target_compile_definitions(qpx_client_side INTERFACE QPX_CHECK_LOCKS)
endif()
target_compile_options(qpx_client_side INTERFACE -pthread -m${QPX_BITS})
target_link_options(qpx_client_side INTERFACE -pthread -m${QPX_BITS})

# Programs as users of the library write them, in strict C99:  qpx_user_program(<name> <file>...)
function(qpx_user_program name)
  add_executable(${name} ${ARGN})
  target_link_libraries(${name} PRIVATE qpxclient qpx_client_side)
  target_compile_options(${name} PRIVATE -Wpedantic)
  set_target_properties(${name} PROPERTIES
    C_STANDARD 99 C_STANDARD_REQUIRED ON C_EXTENSIONS OFF)
endfunction()
