#include "stopwatch.h"
#include "worker.h"

namespace bench {

Values Burst(Worker& worker, int count)
{
    constexpr int kBurst = 32;
    Link& link = worker.MainLink();
    AwaitDaemon(link);
    const Stopwatch watch(worker.DaemonClock());
    for (int i = 0; i < count; ++i) {
        for (int k = 0; k < kBurst; ++k) {
            link.SendHeartbeat(kOneWayDevice);
        }
        AwaitDaemon(link);
    }
    return {{"cpu", (watch.OwnCpu() + watch.DaemonCpu()) / count / kBurst}};
}

}  // namespace bench
