#include <unistd.h>

#include "stopwatch.h"
#include "worker.h"

namespace bench {

Values FleetLoop(Worker& worker, int count, int workers)
{
    std::vector<std::unique_ptr<Link>>& fleet = worker.Fleet(workers);
    qel::PPCMessage msg = MakeMessage(qel::PPCMessage::HEARTBEAT, kEchoDevice);
    qel::PPCMessage answer;
    const int passes = (count + workers - 1) / workers;
    const auto firstPid = static_cast<uint32_t>(getpid());
    const Stopwatch watch(worker.DaemonClock());
    for (int pass = 0; pass < passes; ++pass) {
        for (size_t i = 0; i < fleet.size(); ++i) {
            // The daemon tells workers apart by their process ids.
            msg.set_sub_proc_pid(firstPid + static_cast<uint32_t>(i));
            fleet[i]->Send(msg);
        }
        for (const std::unique_ptr<Link>& link : fleet) {
            link->Receive(answer);
        }
    }
    const double messages = static_cast<double>(passes) * workers;
    return {{"rate", 1e9 * messages / watch.Elapsed()}, {"daemon_cpu", watch.DaemonCpu() / messages}};
}

}  // namespace bench
