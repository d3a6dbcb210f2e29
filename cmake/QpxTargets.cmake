# How targets are compiled. Two interface libraries say it:
#   qpx_strict       warnings as errors, sanitizers: for everything
#   qpx_client_side  qpx_strict, and the word size of the library: for the library, its tests and
#                    the examples (the gateway's daemon is a native program and takes qpx_strict)

add_library(qpx_strict INTERFACE)
target_compile_features(qpx_strict INTERFACE cxx_std_17)
target_compile_options(qpx_strict INTERFACE
  -Wall -Wextra -Wshadow -Wconversion -Wformat=2 -Werror)

if(QPX_SANITIZE)
  target_compile_options(qpx_strict INTERFACE
    -fsanitize=${QPX_SANITIZE} -fno-omit-frame-pointer)
  if(QPX_SANITIZE MATCHES "undefined")
    target_compile_options(qpx_strict INTERFACE -fno-sanitize-recover=undefined)
  endif()
  target_link_options(qpx_strict INTERFACE -fsanitize=${QPX_SANITIZE})
endif()

add_library(qpx_client_side INTERFACE)
target_link_libraries(qpx_client_side INTERFACE qpx_strict)
target_compile_definitions(qpx_client_side INTERFACE _FILE_OFFSET_BITS=64 _TIME_BITS=64)
target_compile_options(qpx_client_side INTERFACE -pthread -m${QPX_BITS})
target_link_options(qpx_client_side INTERFACE -pthread -m${QPX_BITS})
