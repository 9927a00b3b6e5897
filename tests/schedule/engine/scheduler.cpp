#include "scheduler.h"

#include <dlfcn.h>
#include <linux/futex.h>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "memory_checker.h"

extern "C" const char __executable_start;
extern "C" const char etext;

namespace gaktest {

__thread Thread* self = nullptr;

namespace {

constexpr int kMaxDrops = 5;
constexpr uint32_t kMaxSteps = 20000;  // more, and the run is taken for one that does not end
constexpr int64_t kPriorities = int64_t{1} << 40;
constexpr size_t kThreadLocalRoom = 8192;

struct Run {
    RunLog* log;
    uint64_t random;
    uint32_t steps;
    uint32_t dropAt[kMaxDrops];  // steps at which the running thread's priority falls below all others
    int drops;
    uint32_t redrawOneIn;  // 0: never; otherwise the running thread draws another priority that often
    int64_t lowest;
    uint64_t socketChanges;
    bool memoryIsReused;
    bool ended;
    int threadCount;
    Thread threads[kMaxThreads];
};

Run run;

uint64_t Random()
{
    // splitmix64
    run.random += 0x9E3779B97F4A7C15U;
    uint64_t value = run.random;
    value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9U;
    value = (value ^ (value >> 27)) * 0x94D049BB133111EBU;
    return value ^ (value >> 31);
}

int64_t DrawPriority()
{
    return static_cast<int64_t>(Random() % static_cast<uint64_t>(kPriorities));
}

// How this seed goes about it: how many drops, or priorities that are drawn again and again. Some drops come later than
// in a usual run, because other schedules may be longer.
void DrawStrategy(uint32_t usualLength)
{
    run.memoryIsReused = OneIn(2);
    if (OneIn(4)) {
        run.redrawOneIn = 1U << (1 + Random() % 5);
        return;
    }
    run.drops = static_cast<int>(Random() % (kMaxDrops + 1));
    const uint32_t within = usualLength * (OneIn(4) ? 4 : 1) + 1;
    for (int drop = 0; drop < run.drops; ++drop) {
        run.dropAt[drop] = static_cast<uint32_t>(Random() % within);
    }
}

void ApplyStrategy()
{
    ++run.steps;
    for (int drop = 0; drop < run.drops; ++drop) {
        if (run.dropAt[drop] == run.steps) {
            self->priority = --run.lowest;
        }
    }
    if (run.redrawOneIn != 0 && OneIn(run.redrawOneIn)) {
        self->priority = DrawPriority();
    }
}

// ---- Handing over ----

void AwaitTurn(Thread& thread)
{
    while (__atomic_exchange_n(&thread.turn, 0, __ATOMIC_ACQUIRE) == 0) {
        syscall(SYS_futex, &thread.turn, FUTEX_WAIT_PRIVATE, 0, nullptr, nullptr, 0);
    }
}

void GiveTurn(Thread& thread)
{
    __atomic_store_n(&thread.turn, 1, __ATOMIC_RELEASE);
    syscall(SYS_futex, &thread.turn, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

// ---- Who can run ----

bool IsReadable(Thread& thread)
{
    if (thread.socketChangesSeen != run.socketChanges) {
        pollfd descriptor = {thread.step.number, POLLIN, 0};
        thread.readable = syscall(SYS_poll, &descriptor, 1, 0) != 0;
        thread.socketChangesSeen = run.socketChanges;
    }
    return thread.readable;
}

bool CanRun(Thread& thread)
{
    const Step& step = thread.step;
    switch (step.need) {
        case Need::kNothing:
            return true;
        case Need::kSignal:
            return thread.waitsFor == nullptr && SyncAt(step.object).owner == -1;
        case Need::kFreeMutex:
        case Need::kInitialised:
            return SyncAt(step.object).owner == -1;
        case Need::kEndOfThread:
            return !run.threads[step.number].alive;
        case Need::kReadable:
            return IsReadable(thread);
        case Need::kSocketChange:
            return thread.socketChangesSeen != run.socketChanges;
    }
    return false;
}

Thread* Choose()
{
    Thread* best = nullptr;
    for (int id = 0; id < run.threadCount; ++id) {
        Thread& thread = run.threads[id];
        if (thread.alive && (best == nullptr || thread.priority > best->priority) && CanRun(thread)) {
            best = &thread;
        }
    }
    return best;
}

// ---- Findings ----

void KeepStack(const Thread& thread)
{
    Stack& stack = run.log->stacks[thread.id];
    stack.depth = 0;
    stack.places[stack.depth++] = thread.step.place;
    for (int frame = thread.depth - 1; frame >= 0 && stack.depth < 24; --frame) {
        stack.places[stack.depth++] = thread.frames[frame].callSite;
    }
}

void DescribeWait(const Thread& thread, char* text, size_t size)
{
    const Step& step = thread.step;
    switch (step.need) {
        case Need::kFreeMutex:
            snprintf(text, size, "waits for a mutex that thread %d holds", SyncAt(step.object).owner);
            break;
        case Need::kSignal:
            snprintf(text, size, "waits for a condition%s", thread.waitsFor == nullptr ? "'s mutex" : "");
            break;
        case Need::kInitialised:
            snprintf(text, size, "waits for an initialisation by thread %d", SyncAt(step.object).owner);
            break;
        case Need::kEndOfThread:
            snprintf(text, size, "waits for the end of thread %d", step.number);
            break;
        default:
            snprintf(text, size, "waits in %s on descriptor %d", NameOf(step.op), step.number);
    }
}

[[noreturn]] void FoundDeadlock()
{
    char text[4000] = "deadlock: no thread can run";
    size_t used = strlen(text);
    for (int id = 0; id < run.threadCount; ++id) {
        if (run.threads[id].alive) {
            char wait[100];
            DescribeWait(run.threads[id], wait, sizeof(wait));
            const int length = snprintf(text + used, sizeof(text) - used, "\n    thread %d (%s) %s", id,
                                        run.log->threadNames[id], wait);
            used += static_cast<size_t>(length);
        }
    }
    Found("%s", text);
}

[[noreturn]] void Leave(RunLog::Outcome outcome)
{
    run.log->threadCount = run.threadCount;
    run.log->outcome = outcome;
    _exit(outcome == RunLog::Outcome::kFound ? 1 : 0);
}

// ---- Steps ----

void Record(const Thread& thread)
{
    RunLog& log = *run.log;
    if (log.eventCount < RunLog::kMaxEvents) {
        const Step& step = thread.step;
        log.events[log.eventCount++] = {step.place, reinterpret_cast<uintptr_t>(step.object), step.number,
                                        static_cast<uint8_t>(thread.id), step.op};
    }
}

// Lets the best thread go on, which may be this one. A thread that has ended does not come back.
void HandOver()
{
    Thread* const own = self;
    Thread* next = Choose();
    if (next == nullptr) {
        FoundDeadlock();
    }
    if (next == own) {
        return;
    }
    const bool comesBack = own->alive;  // asked before another thread runs
    if (!comesBack) {
        self = nullptr;
    }
    GiveTurn(*next);
    if (comesBack) {
        AwaitTurn(*own);
    }
}

// ---- Threads ----

Thread& AddThread()
{
    if (run.threadCount == kMaxThreads) {
        Found("the run has more than %d threads", kMaxThreads);
    }
    Thread& thread = run.threads[run.threadCount];
    thread.id = run.threadCount++;
    thread.alive = true;
    thread.priority = DrawPriority();
    thread.clock.at[thread.id] = 1;
    snprintf(run.log->threadNames[thread.id], sizeof(run.log->threadNames[0]), "thread %d", thread.id);
    return thread;
}

void FindOwnMemory(Thread& thread, const void* frame)
{
    thread.stackTop = reinterpret_cast<uintptr_t>(frame);
    thread.threadLocals = static_cast<uintptr_t>(pthread_self()) - kThreadLocalRoom / 2;
}

void EndThread()
{
    Thread& thread = *self;
    Do({Op::kEnd, thread.step.place});
    thread.alive = false;
    HandOver();
}

// Also when the thread is unwound by pthread_exit.
struct ThreadEnd {
    ~ThreadEnd() { EndThread(); }
};

void* ThreadBody(void* argument)
{
    Thread& thread = *static_cast<Thread*>(argument);
    FindOwnMemory(thread, __builtin_frame_address(0));
    AwaitTurn(thread);
    self = &thread;
    Record(thread);
    const ThreadEnd end;
    return thread.routine(thread.argument);
}

}  // namespace

void StartRun(RunLog* log, uint64_t seed, uint32_t usualLength)
{
    run.log = log;
    run.random = seed;
    log->outcome = RunLog::Outcome::kRunning;
    log->eventCount = 0;
    log->finding[0] = '\0';
    if (usualLength != 0) {
        DrawStrategy(usualLength);
    }
    Thread& first = AddThread();
    first.handle = pthread_self();
    FindOwnMemory(first, __builtin_frame_address(0));
    snprintf(log->threadNames[0], sizeof(log->threadNames[0]), "main");
    self = &first;
}

void EndRun()
{
    Leave(RunLog::Outcome::kPassed);
}

void ExpectExit()
{
    run.log->outcome = RunLog::Outcome::kExiting;
}

bool MemoryIsReused()
{
    return run.memoryIsReused;
}

void Found(const char* format, ...)
{
    Thread* const finder = self;
    self = nullptr;
    run.log->finder = finder == nullptr ? -1 : finder->id;
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(run.log->finding, sizeof(run.log->finding), format, arguments);
    va_end(arguments);
    for (int id = 0; id < run.threadCount; ++id) {
        run.log->stacks[id].depth = 0;
        if (run.threads[id].alive) {
            KeepStack(run.threads[id]);
        }
    }
    Leave(RunLog::Outcome::kFound);
}

void Do(const Step& step)
{
    const int savedErrno = errno;
    self->step = step;
    self->socketChangesSeen = step.need == Need::kSocketChange ? run.socketChanges : UINT64_MAX;
    ApplyStrategy();
    if (run.steps > kMaxSteps) {
        Found("the run does not end: %u steps", kMaxSteps);
    }
    HandOver();
    Record(*self);
    errno = savedErrno;
}

int StartThread(pthread_t* handle, const pthread_attr_t* attributes, void* (*routine)(void*), void* argument)
{
    static const auto create = reinterpret_cast<int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)>(
        dlsym(RTLD_NEXT, "pthread_create"));
    if (self == nullptr) {
        return create(handle, attributes, routine, argument);
    }
    Thread& thread = AddThread();
    thread.step = {Op::kStart, self->step.place, nullptr, self->id};
    thread.routine = routine;
    thread.argument = argument;
    thread.clock.Join(self->clock);
    ++self->clock.at[self->id];
    const int result = create(&thread.handle, attributes, ThreadBody, &thread);
    if (result != 0) {
        thread.alive = false;
        return result;
    }
    int detachState = PTHREAD_CREATE_JOINABLE;
    if (attributes != nullptr) {
        pthread_attr_getdetachstate(attributes, &detachState);
    }
    thread.detached = detachState == PTHREAD_CREATE_DETACHED;
    *handle = thread.handle;
    return 0;
}

// The youngest: the system gives the handles of ended threads again.
Thread* FindThread(pthread_t handle)
{
    for (int id = run.threadCount - 1; id >= 0; --id) {
        Thread& thread = run.threads[id];
        if (!thread.joined && pthread_equal(thread.handle, handle) != 0) {
            return &thread;
        }
    }
    return nullptr;
}

const Thread& ThreadAt(int id)
{
    return run.threads[id];
}

int ThreadCount()
{
    return run.threadCount;
}

void NameThread(const char* name)
{
    snprintf(run.log->threadNames[self->id], sizeof(run.log->threadNames[0]), "%s", name);
}

void SocketChanged()
{
    ++run.socketChanges;
}

void ForgetOtherThreads()
{
    for (int id = 0; id < run.threadCount; ++id) {
        run.threads[id].alive = &run.threads[id] == self;
        self->clock.Join(run.threads[id].clock);  // what they had done is in the copy
    }
}

bool OneIn(uint32_t outOf)
{
    return Random() % outOf == 0;
}

void WaitForSignal(const void* condition, const void* mutex, uintptr_t place)
{
    self->waitsFor = condition;
    SyncObject& held = SyncAt(mutex);
    Release(held);
    held.owner = -1;
    Do({Op::kWakeUp, place, mutex, -1, Need::kSignal});
    Acquire(held);
    held.owner = self->id;
    held.lockedAt = place;
}

void Signal(const void* condition, bool all)
{
    for (int id = 0; id < run.threadCount; ++id) {
        Thread& thread = run.threads[id];
        if (thread.alive && thread.waitsFor == condition) {
            thread.waitsFor = nullptr;
            if (!all) {
                return;
            }
        }
    }
}

uintptr_t PlaceOf(const void* returnAddress)
{
    const auto place = reinterpret_cast<uintptr_t>(returnAddress);
    const bool isOurs =
        place >= reinterpret_cast<uintptr_t>(&__executable_start) && place < reinterpret_cast<uintptr_t>(&etext);
    return isOurs || self == nullptr || self->depth == 0 ? place : self->frames[self->depth - 1].function;
}

}  // namespace gaktest
