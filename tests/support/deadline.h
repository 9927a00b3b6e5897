#ifndef GAKPPC_DEADLINE_H
#define GAKPPC_DEADLINE_H

#include <chrono>

namespace gaktest {

// The point in time at which waiting for an event becomes a failure. Converts from a duration, so that calls read
// `WaitExit(5s)`; made once and passed on, it bounds a sequence of waits. Generous deadlines cost nothing: only a
// failing test waits for one.
class Deadline {
public:
    using Clock = std::chrono::steady_clock;

    template <typename Rep, typename Period>
    Deadline(std::chrono::duration<Rep, Period> fromNow)  // NOLINT: conversion wanted
        : when_(Clock::now() + std::chrono::duration_cast<Clock::duration>(fromNow))
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
