#ifndef GAKPPC_TOOLS_DEADLINE_H
#define GAKPPC_TOOLS_DEADLINE_H

#include <algorithm>
#include <chrono>
#include <climits>
#include <optional>

namespace tools {

using Clock = std::chrono::steady_clock;

// The longest time that an option may name, in seconds: ten years.
constexpr double kLongestSeconds = 315360000;

inline Clock::duration Seconds(double seconds)
{
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

// The point in time at which a wait ends.
class Deadline {
public:
    explicit Deadline(Clock::duration fromNow) : when_(Clock::now() + fromNow) {}

    bool Passed() const { return Clock::now() >= when_; }

    // For poll(2): rounded up, 0 when the deadline has passed, no more than it can wait.
    int RemainingMs() const
    {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(when_ - Clock::now()).count();
        return static_cast<int>(std::clamp<long long>(left, 0, INT_MAX));
    }

    friend bool operator<(const Deadline& left, const Deadline& right) { return left.when_ < right.when_; }

private:
    Clock::time_point when_;
};

inline bool HasPassed(const std::optional<Deadline>& deadline)
{
    return deadline.has_value() && deadline->Passed();
}

}  // namespace tools

#endif
