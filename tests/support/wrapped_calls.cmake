# Sets QPX_WRAP_OPTIONS: the link options that put support/faults.cpp between the library's objects
# and the system, and support/refusals.cpp where that does not stand. With 64-bit time in a 32-bit
# program the headers give some functions other names, and fortified builds call checking forms;
# each name in use is listed.

set(QPX_WRAPPED_CALLS
  malloc calloc realloc strdup free
  explicit_bzero __explicit_bzero_chk munmap madvise
  pthread_mutex_init pthread_mutex_lock pthread_mutex_unlock pthread_mutex_destroy
  pthread_cond_init pthread_cond_destroy pthread_cond_wait pthread_cond_broadcast
  pthread_cond_timedwait __pthread_cond_timedwait64
  pthread_cond_clockwait __pthread_cond_clockwait64
  pthread_create pthread_detach pthread_once
  socket connect shutdown close
  setsockopt __setsockopt64 getsockopt __getsockopt64
  ioctl __ioctl_time64
  select __select64 pselect __pselect64
  poll __poll_chk ppoll __ppoll64 __ppoll_chk
  send recv __recv_chk
  getaddrinfo freeaddrinfo
  gettimeofday __gettimeofday64 clock_gettime __clock_gettime64 time __time64
  fopen fopen64 fclose write secure_getenv
  _Z13clapiSetEventP11_ClapiEvent) # the library's own, as it is called from its other modules

# The linker script gathers the library's code in one place, which tells its calls from others.
set(QPX_WRAP_OPTIONS "-Wl,-T,${CMAKE_CURRENT_LIST_DIR}/library_text.ld")
foreach(call ${QPX_WRAPPED_CALLS})
  list(APPEND QPX_WRAP_OPTIONS "-Wl,--wrap=${call}")
endforeach()

# A call whose return address is the library's is the library's; jumps would hide it.
target_compile_options(qpxclient_objects PRIVATE -fno-optimize-sibling-calls)
