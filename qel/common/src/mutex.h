#ifndef GAKPPC_MUTEX_H
#define GAKPPC_MUTEX_H

#include <pthread.h>

#include <condition_variable>
#include <mutex>

// A thin layer over the standard mutex that clang's thread-safety analysis can read (-Wthread-safety). The macros are
// empty for other compilers.
#if defined(__clang__)
#define GAKPPC_ANNOTATE(x) __attribute__((x))
#else
#define GAKPPC_ANNOTATE(x)
#endif
#define GAKPPC_CAPABILITY(name) GAKPPC_ANNOTATE(capability(name))
#define GAKPPC_SCOPED_CAPABILITY GAKPPC_ANNOTATE(scoped_lockable)
#define GAKPPC_GUARDED_BY(mutex) GAKPPC_ANNOTATE(guarded_by(mutex))
#define GAKPPC_REQUIRES(...) GAKPPC_ANNOTATE(requires_capability(__VA_ARGS__))
#define GAKPPC_EXCLUDES(...) GAKPPC_ANNOTATE(locks_excluded(__VA_ARGS__))
#define GAKPPC_ACQUIRE(...) GAKPPC_ANNOTATE(acquire_capability(__VA_ARGS__))
#define GAKPPC_RELEASE(...) GAKPPC_ANNOTATE(release_capability(__VA_ARGS__))

namespace qel {

// A plain mutex, neither recursive nor robust nor of a priority: it has no failure that correct use can meet, so
// locking it raises nothing, unlike std::mutex::lock. Constant-initialised and trivially destroyed: a namespace-scope
// Mutex is usable before and after every other static object.
class GAKPPC_CAPABILITY("mutex") Mutex {
public:
    constexpr Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void Lock() noexcept GAKPPC_ACQUIRE() { pthread_mutex_lock(mutex_.native_handle()); }
    void Unlock() noexcept GAKPPC_RELEASE() { mutex_.unlock(); }
    // In a forked child: frees the mutex of a thread that the child does not have.
    void ResetInChild() noexcept { pthread_mutex_init(mutex_.native_handle(), nullptr); }

private:
    friend class CondVar;
    std::mutex mutex_;
};

class GAKPPC_SCOPED_CAPABILITY MutexLock {
public:
    explicit MutexLock(Mutex& mutex) GAKPPC_ACQUIRE(mutex) : mutex_(mutex) { mutex_.Lock(); }
    ~MutexLock() GAKPPC_RELEASE() { mutex_.Unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

private:
    Mutex& mutex_;
};

class CondVar {
public:
    CondVar() = default;
    CondVar(const CondVar&) = delete;
    CondVar& operator=(const CondVar&) = delete;

    // May wake without a notification: callers test their condition in a loop.
    void Wait(Mutex& mutex) GAKPPC_REQUIRES(mutex)
    {
        std::unique_lock<std::mutex> held(mutex.mutex_, std::adopt_lock);
        condition_.wait(held);
        held.release();
    }
    void NotifyAll() { condition_.notify_all(); }

private:
    std::condition_variable condition_;
};

}  // namespace qel

#endif
