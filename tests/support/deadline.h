#ifndef GAKPPC_DEADLINE_H
#define GAKPPC_DEADLINE_H

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>

namespace gaktest {

// By how much GAKPPC_TEST_TIME_SCALE stretches every time limit of the tests, so that they can run under sanitizers, an
// emulator or load: a whole number, 1 when it is not set.
inline int TimeScale()
{
    const char* scale = getenv("GAKPPC_TEST_TIME_SCALE");
    return scale == nullptr ? 1 : std::max(1, static_cast<int>(strtol(scale, nullptr, 10)));
}

// The limit for what takes no Deadline.
template <typename Rep, typename Period>
std::chrono::duration<Rep, Period> Stretched(std::chrono::duration<Rep, Period> limit)
{
    return limit * TimeScale();
}

// Ends the process with SIGALRM when it takes longer than this.
inline void EndProcessAfter(std::chrono::seconds limit)
{
    alarm(static_cast<unsigned>(Stretched(limit).count()));
}

// The point in time at which waiting for an event becomes a failure, stretched. Converts from a duration, so that calls
// read `WaitExit(5s)`; made once and passed on, it bounds a sequence of waits. Generous deadlines cost nothing: only a
// failing test waits for one.
class Deadline {
public:
    using Clock = std::chrono::steady_clock;

    template <typename Rep, typename Period>
    Deadline(std::chrono::duration<Rep, Period> fromNow)  // NOLINT: conversion wanted
        : when_(Clock::now() + std::chrono::duration_cast<Clock::duration>(Stretched(fromNow)))
    {
    }

    Clock::time_point When() const { return when_; }
    bool Passed() const { return Clock::now() >= when_; }

    // For poll(2): rounded up, 0 when the deadline has passed.
    int RemainingMs() const
    {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(when_ - Clock::now()).count();
        return left > 0 ? static_cast<int>(left) : 0;
    }

private:
    Clock::time_point when_;
};

}  // namespace gaktest

#endif
