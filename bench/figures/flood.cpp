#include "stopwatch.h"
#include "worker.h"

namespace bench {

Values Flood(Worker& worker, int count, int payload)
{
    Link& link = worker.MainLink();
    qel::PPCMessage msg = MakeMessage(qel::PPCMessage::NOTIFY_VEXOINFO, kOneWayDevice);
    msg.mutable_lib_names()->add_lib_name(std::string(static_cast<size_t>(payload), 'x'));
    AwaitDaemon(link);
    const Stopwatch watch(worker.DaemonClock());
    for (int i = 0; i < count; ++i) {
        if (payload == 0) {
            link.SendHeartbeat(kOneWayDevice);
        } else {
            link.Send(msg);
        }
    }
    AwaitDaemon(link);
    const double perSecond = 1e9 * count / watch.Elapsed();
    const double cpu = watch.OwnCpu() + watch.DaemonCpu();
    return {{"rate", perSecond}, {"bytes", perSecond * payload}, {"cpu", cpu / count}};
}

}  // namespace bench
