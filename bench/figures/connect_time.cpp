#include <chrono>
#include <thread>

#include "stopwatch.h"
#include "worker.h"

namespace bench {
namespace {

constexpr std::chrono::milliseconds kPause(1);

}  // namespace

Values ConnectTime(Worker& worker, int count)
{
    worker.CloseMainLink();
    std::vector<double> times;
    for (int i = 0; i < count; ++i) {
        // The daemon's work on the former connection, which has just been closed, belongs to no sample.
        std::this_thread::sleep_for(kPause);
        const double before = Now(CLOCK_MONOTONIC);
        const std::unique_ptr<Link> link = worker.NewLink();
        AwaitDaemon(*link);
        times.push_back(Now(CLOCK_MONOTONIC) - before);
    }
    return {{"p50", Quantile(times, 0.5)}};
}

}  // namespace bench
