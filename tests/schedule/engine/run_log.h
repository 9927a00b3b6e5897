#ifndef GAKPPC_SCHEDULE_RUN_LOG_H
#define GAKPPC_SCHEDULE_RUN_LOG_H

#include <cstdint>

#include "vector_clock.h"

// What is known of one run when its process has ended: the schedule, and what was found. In memory that the run shares
// with the program that started it.

namespace gaktest {

// What a thread does at a scheduling point.
enum class Op : uint8_t {
    kStart,
    kEnd,
    kLoad,
    kStore,
    kReadModifyWrite,
    kFence,
    kLock,
    kTryLock,
    kUnlock,
    kWait,
    kWakeUp,
    kNotify,
    kCreateThread,
    kJoinThread,
    kInitialise,
    kSocket,
    kBind,
    kListen,
    kAccept,
    kConnect,
    kReceive,
    kSend,
    kPoll,
    kShutdown,
    kClose,
    kFork,
    kLogLine,
    kCount,
};

const char* NameOf(Op op);

struct Event {
    uintptr_t place;   // a return address in the code that does it
    uintptr_t object;  // a mutex, an atomic, ...; 0 for calls on a descriptor
    int32_t number;    // a descriptor or a thread
    uint8_t thread;
    Op op;
};

struct Stack {
    int depth;
    uintptr_t places[24];  // innermost first
};

struct RunLog {
    static constexpr uint32_t kMaxEvents = 50000;

    enum class Outcome : uint32_t { kRunning, kExiting, kPassed, kFound };

    Outcome outcome;
    uint32_t eventCount;
    int threadCount;
    int finder;  // the thread that ran when it was found
    char threadNames[kMaxThreads][20];
    Stack stacks[kMaxThreads];  // as they were when it was found
    char finding[4096];
    Event events[kMaxEvents];
};

// Maps a log that forked children share.
RunLog* CreateRunLog();

// Prints what was found, where every thread was, and the schedule.
void PrintRun(const RunLog& log, bool wholeSchedule);

}  // namespace gaktest

#endif
