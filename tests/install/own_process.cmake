# The library neither ends the process that it is in nor changes what is the process's, apart from
# what docs/process.md says; and nothing of it runs when the process ends.

cmake_minimum_required(VERSION 3.25)
include(${CMAKE_CURRENT_LIST_DIR}/run.cmake)

run(symbols ${NM} -D --undefined-only ${LIBRARY})
foreach(call pthread_create signal setlocale)
  if(NOT symbols MATCHES " ${call}[@\n]")
    message(FATAL_ERROR "not the symbols that the library needs:\n${symbols}")
  endif()
endforeach()

set(ending exit _exit _Exit quick_exit abort raise kill tgkill pthread_kill pthread_exit
  __assert_fail __assert_perror_fail __assert err errx)
set(at_the_end atexit on_exit at_quick_exit __cxa_atexit __cxa_at_quick_exit __cxa_thread_atexit
  __cxa_thread_atexit_impl)
set(other_programs fork vfork posix_spawn posix_spawnp execve execv execvp execl execlp system popen
  dlopen dlmopen)
set(of_the_process sigaction sigaltstack sigprocmask setenv putenv unsetenv clearenv setrlimit
  setrlimit64 umask chdir fchdir alarm setitimer timer_create mlock mlock2 mlockall mallopt setuid
  setgid nice setpriority sched_setaffinity pthread_setschedparam prctl syscall)
set(streams stdin stdout printf __printf_chk puts putchar)
foreach(call IN LISTS ending at_the_end other_programs of_the_process streams)
  if(symbols MATCHES " ${call}[@\n]")
    message(FATAL_ERROR "the library calls ${call}")
  endif()
endforeach()

# One function of its own runs when it is loaded, behind one of the compiler's, and none when the
# process ends, but for one of the compiler's, too.
math(EXPR pointer "${BITS} / 8")
math(EXPR two_pointers "2 * ${pointer}")
run(dynamic ${READELF} -W -d ${LIBRARY})
foreach(expected "INIT_ARRAYSZ\\) +${two_pointers} " "FINI_ARRAYSZ\\) +${pointer} ")
  if(NOT dynamic MATCHES "${expected}")
    message(FATAL_ERROR "no \"${expected}\" in:\n${dynamic}")
  endif()
endforeach()
