#include "hook_probe.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>

#define JOIN_EXPANDED(build, name) build##_##name
#define JOIN(build, name) JOIN_EXPANDED(build, name)
#define PROBE(name) JOIN(HOOK_PROBE_BUILD, name)

pid_t PROBE(GetPid)()
{
    return getpid();
}

int PROBE(Own)(int value)
{
    return value + 1;
}

int PROBE(CallsOwn)(int value)
{
    return PROBE(Own)(value);
}

int PROBE(OpenFile)(const char* path, int flags)
{
    return open(path, flags);
}

void* PROBE(Allocate)(size_t bytes)
{
    return malloc(bytes);
}

// A pointer that the dynamic linker fills in, next to the slot of the direct call.
static int (*const volatile ownPointer)(int) = &PROBE(Own);

int PROBE(CallsThroughPointer)(int value)
{
    return ownPointer(value);
}

// An address that the code looks up, without a direct call of the same function.
pid_t PROBE(CallsByAddress)()
{
    pid_t (*volatile function)() = &getppid;
    return function();
}
