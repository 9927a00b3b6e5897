#ifndef GAKPPC_SCHEDULE_MEMORY_CHECKER_H
#define GAKPPC_SCHEDULE_MEMORY_CHECKER_H

#include <cstddef>
#include <cstdint>

#include "vector_clock.h"

// Which access happened before which, judged by what the program says of order (mutexes, thread starts and joins, the
// memory orders of its atomics) and not by the order in which this run happened to do things. Two accesses without an
// order, of which one writes and one is not atomic, are a finding; so is an access to what has been freed.
//
// Descriptors are checked like memory: opening and closing writes, every other call reads.

namespace gaktest {

enum class Access : uint8_t { kRead, kWrite, kAtomicRead, kAtomicWrite, kFree };

void CheckAccess(uintptr_t address, size_t size, Access access, uintptr_t place);
// Memory that has been given back; a second time is a finding.
void CheckFree(uintptr_t address, size_t size, uintptr_t place);
// Memory that begins a new life.
void ForgetMemory(uintptr_t address, size_t size);

// The stand-in address of a descriptor.
uintptr_t DescriptorAddress(int fd);

// What a mutex, an atomic variable or a guard carries from one thread to another.
struct SyncObject {
    uintptr_t address;
    SyncObject* next;
    VectorClock released;
    int owner;  // of a mutex: the thread that holds it, or -1
    uintptr_t lockedAt;
};

SyncObject& SyncAt(const void* address);
void Acquire(const SyncObject& object);   // the running thread sees what was released
void Release(SyncObject& object);         // adds what the running thread has seen and done
void ReleaseAlone(SyncObject& object);    // the same, and what others released before is no longer passed on
void ReleaseNothing(SyncObject& object);  // a relaxed store

}  // namespace gaktest

#endif
