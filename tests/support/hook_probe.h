#ifndef GAKPPC_HOOK_PROBE_H
#define GAKPPC_HOOK_PROBE_H

// A small library for the tests of the test support, built three times: libhook_probe_now.so (bound at load, read-only
// after relocation, as libgakppc is), libhook_probe_lazy.so (bound on the first call) and libhook_probe_other.so, which
// no test hooks. The names of its functions carry the build's name: PROBE(GetPid) is now_GetPid, lazy_GetPid, ...

#include <stddef.h>
#include <sys/types.h>

#define HOOK_PROBE_DECLARE(build) \
    pid_t build##_GetPid(); \
    int build##_Own(int value); \
    int build##_CallsOwn(int value); \
    int build##_OpenFile(const char* path, int flags); \
    void* build##_Allocate(size_t bytes); \
    int build##_CallsThroughPointer(int value); \
    pid_t build##_CallsByAddress();

extern "C" {
HOOK_PROBE_DECLARE(now)
HOOK_PROBE_DECLARE(lazy)
HOOK_PROBE_DECLARE(other)
}

#endif
