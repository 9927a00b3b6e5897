#ifndef GAKPPC_SCHEDULE_SCHEDULER_H
#define GAKPPC_SCHEDULE_SCHEDULER_H

#include <pthread.h>

#include <cstddef>
#include <cstdint>

#include "run_log.h"
#include "vector_clock.h"

// Runs one thread at a time, and decides at every scheduling point which one goes on.
//
// A thread that comes to a scheduling point says what it is about to do and what must be so before it can (a mutex is
// free, a thread has ended, a socket is readable). The runnable thread with the highest priority does its step next.
// Priorities are random; at a few random points of the run the running thread's priority falls below all others. When
// no thread can run the run is deadlocked. All random numbers come from the run's seed.
//
// This is the run time of instrumented code: it uses no function that is instrumented itself or that comes back here,
// which leaves plain C and compiler built-ins.

namespace gaktest {

enum class Need : uint8_t {
    kNothing,
    kFreeMutex,     // object
    kSignal,        // object is the mutex to get back once the condition was signalled
    kEndOfThread,   // number
    kReadable,      // number is a descriptor
    kSocketChange,  // something happened to any socket since the last try
    kInitialised,   // object is a guard or once flag that another thread is busy with
};

struct Step {
    Op op;
    uintptr_t place;
    const void* object = nullptr;
    int number = -1;
    Need need = Need::kNothing;
};

struct Frame {
    uintptr_t callSite;
    uintptr_t function;  // a place inside the function that was called
};

struct Thread {
    int id;
    bool alive;
    bool joined;
    bool detached;
    int turn;  // futex: 1 while the thread may run
    pthread_t handle;
    void* (*routine)(void*);
    void* argument;

    Step step;  // what it does next, or what it waits for
    int64_t priority;
    uint64_t socketChangesSeen;  // when its descriptor was last asked, or its call last tried
    bool readable;               // the answer
    const void* waitsFor;        // condition variable; null once signalled

    VectorClock clock;
    uintptr_t stackTop;
    uintptr_t threadLocals;  // where its thread-local objects begin, about
    int depth;
    Frame frames[256];
};

// The running thread; null outside a run, in threads that the run does not know, and inside the run time itself.
extern __thread Thread* self;

// ---- A run ----

// Makes the calling thread the first one of a run, which lasts until the process ends. `usualLength` says how many
// steps a run has that was started with 0 there, in which threads keep their first priorities.
void StartRun(RunLog* log, uint64_t seed, uint32_t usualLength);
[[noreturn]] void EndRun();
// The process will leave through its exit handlers, which is no finding.
void ExpectExit();
bool MemoryIsReused();
// Ends the run, and with it the process.
[[noreturn]] void Found(const char* format, ...) __attribute__((format(printf, 1, 2)));

// ---- Scheduling ----

// A scheduling point. When it returns the thread may do the step, without others in between.
void Do(const Step& step);

int StartThread(pthread_t* handle, const pthread_attr_t* attributes, void* (*routine)(void*), void* argument);
Thread* FindThread(pthread_t handle);
const Thread& ThreadAt(int id);
int ThreadCount();
void NameThread(const char* name);
void SocketChanged();
// In a forked child only the calling thread is left.
void ForgetOtherThreads();
// Whether one of `outOf` random draws comes out.
bool OneIn(uint32_t outOf);

// ---- Condition variables ----

void WaitForSignal(const void* condition, const void* mutex, uintptr_t place);
void Signal(const void* condition, bool all);

// ---- Places ----

// The return address, or a place in the innermost instrumented function when it lies in another library.
uintptr_t PlaceOf(const void* returnAddress);

}  // namespace gaktest

#endif
