#ifndef GAKPPC_RELACY_STD_H
#define GAKPPC_RELACY_STD_H

// Lets Relacy run the driver's records as they ship. Every header that the sources need has been included before them,
// so that the name std can stand for another namespace while they are read: one whose atomics and mutexes are Relacy's
// and whose rest is the standard library's. Memory and descriptors are Relacy's as well.

#include <sys/socket.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <new>
#include <set>
#include <utility>

#include <relacy/relacy.hpp>

// Relacy's own names for what the sources write as usual. Kept are malloc and free, which report a second free.
#undef memory_order_relaxed
#undef memory_order_consume
#undef memory_order_acquire
#undef memory_order_release
#undef memory_order_acq_rel
#undef memory_order_seq_cst
#undef new
#undef delete
#undef assert
#undef errno
#define errno (*__errno_location())

namespace relacy_std {

using namespace std;

using memory_order = rl::memory_order;
constexpr memory_order memory_order_relaxed = rl::mo_relaxed;
constexpr memory_order memory_order_acquire = rl::mo_acquire;
constexpr memory_order memory_order_release = rl::mo_release;
constexpr memory_order memory_order_acq_rel = rl::mo_acq_rel;
constexpr memory_order memory_order_seq_cst = rl::mo_seq_cst;

#define GAKPPC_CALLER rl::debug_info(__builtin_FUNCTION(), __builtin_FILE(), static_cast<unsigned>(__builtin_LINE()))

template <typename T>
class atomic {
public:
    atomic() : atomic(T()) {}
    atomic(T value) : value_(value) { lives_(rl::debug_info("constructor")).store(1); }
    // A write that every operation must be ordered before.
    ~atomic() { lives_(rl::debug_info("destructor")).store(0); }
    atomic(const atomic&) = delete;
    atomic& operator=(const atomic&) = delete;

    T load(memory_order order = memory_order_seq_cst, rl::debug_info caller = GAKPPC_CALLER) const
    {
        return Living(caller).load(order, caller);
    }
    void store(T value, memory_order order = memory_order_seq_cst, rl::debug_info caller = GAKPPC_CALLER)
    {
        Living(caller).store(value, order, caller);
    }
    operator T() const { return load(); }
    T operator=(T value)
    {
        store(value);
        return value;
    }
    T fetch_add(T value, memory_order order = memory_order_seq_cst, rl::debug_info caller = GAKPPC_CALLER)
    {
        return Living(caller).fetch_add(value, order, caller);
    }
    T fetch_sub(T value, memory_order order = memory_order_seq_cst, rl::debug_info caller = GAKPPC_CALLER)
    {
        return Living(caller).fetch_sub(value, order, caller);
    }
    T fetch_or(T value, memory_order order = memory_order_seq_cst, rl::debug_info caller = GAKPPC_CALLER)
    {
        return Living(caller).fetch_or(value, order, caller);
    }
    bool compare_exchange_weak(T& expected, T value, memory_order order, rl::debug_info caller = GAKPPC_CALLER)
    {
        return compare_exchange_weak(expected, value, order, order, caller);
    }
    bool compare_exchange_weak(T& expected, T value, memory_order order, memory_order failure,
                               rl::debug_info caller = GAKPPC_CALLER)
    {
        return Living(caller).compare_exchange_weak(expected, value, order, caller, failure, caller);
    }

private:
    rl::atomic<T>& Living(const rl::debug_info& caller) const
    {
        lives_(caller).load();
        return value_;
    }

    mutable rl::atomic<T> value_;
    mutable rl::var<int> lives_;
};

// Made when it is locked first: the directories' mutexes are constants of the program, Relacy's live in one iteration.
class mutex {
public:
    constexpr mutex() = default;
    ~mutex() { delete mutex_; }
    mutex(const mutex&) = delete;
    mutex& operator=(const mutex&) = delete;

    void lock(rl::debug_info caller = GAKPPC_CALLER)
    {
        if (mutex_ == nullptr) {
            mutex_ = new rl::mutex;
        }
        mutex_->lock(caller);
    }
    void unlock(rl::debug_info caller = GAKPPC_CALLER) { mutex_->unlock(caller); }
    mutex* native_handle() { return this; }

private:
    rl::mutex* mutex_ = nullptr;
};

// Named by a header, used by no record.
class condition_variable {
public:
    template <typename Lock>
    void wait(Lock&)
    {
    }
    void notify_all() {}
};

}  // namespace relacy_std

namespace gaktest {

// The weakening that the program was told to use; 0 for none.
inline int chosenWeakening = 0;

// Stands in copies of the sources instead of an order.
inline rl::memory_order WeakenedIn(int weakening, rl::memory_order weaker, rl::memory_order order)
{
    return weakening == chosenWeakening ? weaker : order;
}

}  // namespace gaktest

#endif
