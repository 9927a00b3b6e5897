#ifndef GAKPPC_SCHEDULE_VECTOR_CLOCK_H
#define GAKPPC_SCHEDULE_VECTOR_CLOCK_H

#include <cstdint>

namespace gaktest {

constexpr int kMaxThreads = 16;

// How far into each thread's life something has seen: all that thread t did up to its tick at[t] happened before.
struct VectorClock {
    uint32_t at[kMaxThreads];

    void Join(const VectorClock& other)
    {
        for (int thread = 0; thread < kMaxThreads; ++thread) {
            at[thread] = other.at[thread] > at[thread] ? other.at[thread] : at[thread];
        }
    }
    bool HasSeen(int thread, uint32_t tick) const { return tick <= at[thread]; }
};

}  // namespace gaktest

#endif
