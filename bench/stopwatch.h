#ifndef GAKPPC_STOPWATCH_H
#define GAKPPC_STOPWATCH_H

#include <algorithm>
#include <cstddef>
#include <ctime>
#include <vector>

namespace bench {

inline double Now(clockid_t clock)
{
    timespec time{};
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
}

// Nanoseconds since its construction: elapsed, and of processor time of this process and of the daemon's.
class Stopwatch {
public:
    explicit Stopwatch(clockid_t daemonClock) : daemonClock_(daemonClock) {}

    double Elapsed() const { return Now(CLOCK_MONOTONIC) - start_; }
    double OwnCpu() const { return Now(CLOCK_PROCESS_CPUTIME_ID) - ownStart_; }
    double DaemonCpu() const { return Now(daemonClock_) - daemonStart_; }

private:
    const clockid_t daemonClock_;
    const double start_ = Now(CLOCK_MONOTONIC);
    const double ownStart_ = Now(CLOCK_PROCESS_CPUTIME_ID);
    const double daemonStart_ = Now(daemonClock_);
};

inline double Quantile(std::vector<double> sample, double share)
{
    const auto rank = static_cast<std::ptrdiff_t>(share * static_cast<double>(sample.size() - 1) + 0.5);
    std::nth_element(sample.begin(), sample.begin() + rank, sample.end());
    return sample[static_cast<size_t>(rank)];
}

}  // namespace bench

#endif
