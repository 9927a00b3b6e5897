#include "sanitizer_options.h"

#include <thread>

#if defined(__SANITIZE_THREAD__)
#define GAKPPC_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define GAKPPC_THREAD_SANITIZER 1
#endif
#endif

// The sanitizers' run-time libraries ask these functions when a program starts. They run before everything else: no
// call, no instrumentation.
extern "C" {

__attribute__((visibility("default"), used, no_sanitize("address", "undefined"))) const char* __asan_default_options()
{
    return "detect_leaks=1:detect_stack_use_after_return=1:strict_string_checks=1:check_initialization_order=1";
}

__attribute__((visibility("default"), used, no_sanitize("address", "undefined"))) const char* __ubsan_default_options()
{
    return "print_stacktrace=1";
}

// Tests fork processes that start threads. Processes that exit with threads in flight do so in their hundreds: the
// second that each would wait for late reports is a long time.
__attribute__((visibility("default"), used, no_sanitize("thread"))) const char* __tsan_default_options()
{
    return "halt_on_error=1:second_deadlock_stack=1:die_after_fork=0:atexit_sleep_ms=10";
}
}

void gaktest::PrepareForSanitizers()
{
#if defined(GAKPPC_THREAD_SANITIZER)
    // This sanitizer starts a thread of its own with the program's first one. It must not come between two counts of
    // threads in a test.
    std::thread([] {}).join();
#endif
}
