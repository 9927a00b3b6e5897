#ifndef GAKPPC_WORKER_END_H
#define GAKPPC_WORKER_END_H

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>

#include "common/deadline.h"

namespace tools {

// How the wait for the shutdown order ended: set by the thread that waits for the order, waited for by the one that
// sends heartbeats.
class WorkerEnd {
public:
    void Set(uint32_t result)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        result_ = result;
        changed_.notify_all();
    }

    // Nothing when `time` passes first.
    std::optional<uint32_t> Wait(Clock::duration time)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait_for(lock, time, [this] { return result_.has_value(); });
        return result_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::optional<uint32_t> result_;
};

}  // namespace tools

#endif
