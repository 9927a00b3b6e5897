#ifndef GAKPPC_HELD_MUTEXES_H
#define GAKPPC_HELD_MUTEXES_H

#include <pthread.h>

#include <functional>
#include <optional>
#include <utility>

#include "fault.h"

namespace gaktest {

namespace calls {

struct MutexLock : OfGakppc {
    static constexpr const char* kSymbol = "pthread_mutex_lock";
    using Signature = int(pthread_mutex_t*);
};
struct MutexUnlock : OfGakppc {
    static constexpr const char* kSymbol = "pthread_mutex_unlock";
    using Signature = int(pthread_mutex_t*);
};

}  // namespace calls

// Counts the mutexes of libgakppc that the calling thread holds, from the hook's beginning on: no thread may hold one
// when it is set.
class HeldMutexes {
public:
    HeldMutexes()
    {
        locks_.OnCall([](uint64_t, pthread_mutex_t*) {
            ++Held();
            return std::optional<int>();
        });
        unlocks_.OnCall([](uint64_t, pthread_mutex_t*) {
            --Held();
            return std::optional<int>();
        });
    }

    static int OfThisThread() { return Held(); }

private:
    static int& Held()
    {
        static thread_local int held = 0;
        return held;
    }

    CountingHook<calls::MutexLock> locks_;
    CountingHook<calls::MutexUnlock> unlocks_;
};

}  // namespace gaktest

#endif
