// The C library's functions for threads, in front of the real ones. Outside a run they are the real ones.

#include <cxxabi.h>
#include <dlfcn.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>

#include "memory_checker.h"
#include "scheduler.h"

namespace {

using gaktest::Need;
using gaktest::Op;
using gaktest::self;
using gaktest::SyncAt;
using gaktest::SyncObject;

#define HERE gaktest::PlaceOf(__builtin_return_address(0))

template <typename Function>
Function* Real(Function*, const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

// The real function of that name and type.
#define REAL(function) \
    ([] { \
        static const auto real = Real(&(function), #function); \
        return real; \
    }())

void TakeMutex(const void* mutex, uintptr_t place)
{
    SyncObject& object = SyncAt(mutex);
    gaktest::Acquire(object);
    object.owner = self->id;
    object.lockedAt = place;
}

void DropMutex(const void* mutex, uintptr_t place)
{
    SyncObject& object = SyncAt(mutex);
    if (object.owner != self->id) {
        self->step.place = place;
        gaktest::Found("thread %d unlocks a mutex that it does not hold", self->id);
    }
    gaktest::Release(object);
    object.owner = -1;
}

// One-time initialisation, for guards of static objects and for pthread_once. Flags read as the C++ and C libraries
// have them.
constexpr int kOnceDone = 2;

bool OnceIsDone(const void* once)
{
    return __atomic_load_n(static_cast<const pthread_once_t*>(once), __ATOMIC_SEQ_CST) == kOnceDone;
}

bool GuardIsDone(const void* guard)
{
    return __atomic_load_n(static_cast<const char*>(guard), __ATOMIC_SEQ_CST) != 0;
}

// Whether the caller is to do it; if not, it has been done.
bool BeginInitialisation(const void* flag, bool (*isDone)(const void* flag), uintptr_t place)
{
    if (self != nullptr) {
        gaktest::Do({Op::kInitialise, place, flag, -1, Need::kInitialised});
        gaktest::Acquire(SyncAt(flag));
    }
    if (isDone(flag)) {
        return false;
    }
    if (self != nullptr) {
        SyncAt(flag).owner = self->id;
    }
    return true;
}

void EndInitialisation(const void* flag)
{
    if (self != nullptr) {
        gaktest::Release(SyncAt(flag));
        SyncAt(flag).owner = -1;
    }
}

struct ExitHandler {
    void (*function)(void*);
    void* argument;
};

constexpr int kMaxExitHandlers = 64;
ExitHandler exitHandlers[kMaxExitHandlers];
int exitHandlerCount = 0;

void RunExitHandler(void* handler)
{
    if (self != nullptr) {
        gaktest::Acquire(SyncAt(&exitHandlers));
    }
    const auto* registered = static_cast<const ExitHandler*>(handler);
    registered->function(registered->argument);
}

// The first of a child's handlers to run, because it is the first to be registered: those of the library are scheduled.
__attribute__((constructor(101))) void ForgetOtherThreadsInChild()
{
    pthread_atfork(nullptr, nullptr, [] {
        if (self != nullptr) {
            gaktest::ForgetOtherThreads();
        }
    });
}

}  // namespace

extern "C" {

int pthread_create(pthread_t* handle, const pthread_attr_t* attributes, void* (*routine)(void*), void* argument)
{
    if (self != nullptr) {
        gaktest::Do({Op::kCreateThread, HERE, nullptr, gaktest::ThreadCount()});
    }
    return gaktest::StartThread(handle, attributes, routine, argument);
}

int pthread_join(pthread_t handle, void** result)
{
    gaktest::Thread* const thread = self == nullptr ? nullptr : gaktest::FindThread(handle);
    if (thread == nullptr) {
        return REAL(pthread_join)(handle, result);
    }
    gaktest::Do({Op::kJoinThread, HERE, nullptr, thread->id, Need::kEndOfThread});
    if (thread->joined || thread->detached) {
        gaktest::Found("thread %d is joined twice, or was detached", thread->id);
    }
    thread->joined = true;
    self->clock.Join(thread->clock);
    return REAL(pthread_join)(handle, result);
}

int pthread_detach(pthread_t handle)
{
    if (gaktest::Thread* const thread = self == nullptr ? nullptr : gaktest::FindThread(handle)) {
        thread->detached = true;
    }
    return REAL(pthread_detach)(handle);
}

int pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes)
{
    if (self != nullptr) {
        const int owner = SyncAt(mutex).owner;
        if (owner != -1 && gaktest::ThreadAt(owner).alive) {
            self->step.place = HERE;
            gaktest::Found("thread %d initialises a mutex that thread %d holds", self->id, owner);
        }
        SyncAt(mutex).owner = -1;
    }
    return REAL(pthread_mutex_init)(mutex, attributes);
}

int pthread_mutex_lock(pthread_mutex_t* mutex)
{
    if (self == nullptr) {
        return REAL(pthread_mutex_lock)(mutex);
    }
    const uintptr_t place = HERE;
    gaktest::Do({Op::kLock, place, mutex, -1, Need::kFreeMutex});
    TakeMutex(mutex, place);
    return 0;
}

int pthread_mutex_trylock(pthread_mutex_t* mutex)
{
    if (self == nullptr) {
        return REAL(pthread_mutex_trylock)(mutex);
    }
    const uintptr_t place = HERE;
    gaktest::Do({Op::kTryLock, place, mutex});
    if (SyncAt(mutex).owner != -1) {
        return EBUSY;
    }
    TakeMutex(mutex, place);
    return 0;
}

int pthread_mutex_unlock(pthread_mutex_t* mutex)
{
    if (self == nullptr) {
        return REAL(pthread_mutex_unlock)(mutex);
    }
    const uintptr_t place = HERE;
    gaktest::Do({Op::kUnlock, place, mutex});
    DropMutex(mutex, place);
    return 0;
}

int pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex)
{
    if (self == nullptr) {
        return REAL(pthread_cond_wait)(condition, mutex);
    }
    const uintptr_t place = HERE;
    gaktest::Do({Op::kWait, place, condition});
    gaktest::WaitForSignal(condition, mutex, place);
    return 0;
}

int pthread_cond_signal(pthread_cond_t* condition)
{
    if (self == nullptr) {
        return REAL(pthread_cond_signal)(condition);
    }
    gaktest::Do({Op::kNotify, HERE, condition});
    gaktest::Signal(condition, false);
    return 0;
}

int pthread_cond_broadcast(pthread_cond_t* condition)
{
    if (self == nullptr) {
        return REAL(pthread_cond_broadcast)(condition);
    }
    gaktest::Do({Op::kNotify, HERE, condition});
    gaktest::Signal(condition, true);
    return 0;
}

int pthread_once(pthread_once_t* once, void (*routine)())
{
    if (BeginInitialisation(once, OnceIsDone, HERE)) {
        routine();
        __atomic_store_n(once, kOnceDone, __ATOMIC_SEQ_CST);
        EndInitialisation(once);
    }
    return 0;
}

int __cxa_guard_acquire(abi::__guard* guard)
{
    return BeginInitialisation(guard, GuardIsDone, HERE) ? 1 : 0;
}

void __cxa_guard_release(abi::__guard* guard) noexcept
{
    __atomic_store_n(reinterpret_cast<char*>(guard), 1, __ATOMIC_SEQ_CST);
    EndInitialisation(guard);
}

void __cxa_guard_abort(abi::__guard* guard) noexcept
{
    EndInitialisation(guard);
}

// Handlers run after whatever happened before they were registered.
int __cxa_atexit(void (*function)(void*), void* argument, void* dso) noexcept
{
    if (self == nullptr) {
        return REAL(__cxa_atexit)(function, argument, dso);
    }
    if (exitHandlerCount == kMaxExitHandlers) {
        gaktest::Found("the run registers more than %d exit handlers", kMaxExitHandlers);
    }
    gaktest::Release(SyncAt(&exitHandlers));
    exitHandlers[exitHandlerCount] = {function, argument};
    return REAL(__cxa_atexit)(RunExitHandler, &exitHandlers[exitHandlerCount++], dso);
}

pid_t fork()
{
    if (self == nullptr) {
        return REAL(fork)();
    }
    gaktest::Do({Op::kFork, HERE});
    return REAL(fork)();
}

int prctl(int option, ...)
{
    va_list arguments;
    va_start(arguments, option);
    unsigned long values[4];
    for (unsigned long& value : values) {
        value = va_arg(arguments, unsigned long);
    }
    va_end(arguments);
    if (self != nullptr && option == PR_SET_NAME) {
        gaktest::NameThread(reinterpret_cast<const char*>(values[0]));
    }
    return static_cast<int>(syscall(SYS_prctl, option, values[0], values[1], values[2], values[3]));
}

}  // extern "C"
