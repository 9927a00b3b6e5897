#include "stopwatch.h"
#include "worker.h"

namespace bench {

Values RoundTrip(Worker& worker, int count)
{
    Link& link = worker.MainLink();
    qel::PPCMessage answer;
    std::vector<double> times;
    times.reserve(static_cast<size_t>(count));
    const Stopwatch watch(worker.DaemonClock());
    double before = Now(CLOCK_MONOTONIC);
    for (int i = 0; i < count; ++i) {
        link.SendHeartbeat(kEchoDevice);
        link.Receive(answer);
        const double after = Now(CLOCK_MONOTONIC);
        times.push_back(after - before);
        before = after;
    }
    const double cpu = watch.OwnCpu() + watch.DaemonCpu();
    return {{"p50", Quantile(times, 0.5)},
            {"p99", Quantile(times, 0.99)},
            {"p999", Quantile(times, 0.999)},
            {"cpu", cpu / count}};
}

Values UntimedRoundTrip(Worker& worker, int count)
{
    Link& link = worker.MainLink();
    qel::PPCMessage answer;
    for (int i = 0; i < count; ++i) {
        link.SendHeartbeat(kEchoDevice);
        link.Receive(answer);
    }
    return {};
}

}  // namespace bench
