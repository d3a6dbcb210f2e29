// What the tests of this folder ask of sanitizers, where they are built with one: a length that no
// allocator can serve is an answer and not the end, and the child of a process with threads may
// start one.

extern "C" __attribute__((visibility("default"))) const char* __asan_default_options();
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_options();

extern "C" const char* __asan_default_options()
{
    return "allocator_may_return_null=1";
}

extern "C" const char* __tsan_default_options()
{
    return "allocator_may_return_null=1:die_after_fork=0";
}
