#include <unistd.h>

#include "stopwatch.h"
#include "worker.h"

namespace bench {
namespace {

using Links = std::vector<std::unique_ptr<Link>>;

// The daemon tells workers apart by their process ids.
void SendOn(Link& link, size_t worker)
{
    qel::PPCMessage msg = MakeMessage(qel::PPCMessage::HEARTBEAT, kEchoDevice);
    msg.set_sub_proc_pid(static_cast<uint32_t>(getpid()) + static_cast<uint32_t>(worker));
    link.Send(msg);
}

void ReceiveOn(Link& link)
{
    qel::PPCMessage answer;
    link.Receive(answer);
}

void SendOnEach(const Links& links)
{
    for (size_t i = 0; i < links.size(); ++i) {
        SendOn(*links[i], i);
    }
}

void ReceiveOnEach(const Links& links)
{
    for (const std::unique_ptr<Link>& link : links) {
        ReceiveOn(*link);
    }
}

}  // namespace

// A closed loop: each worker sends again as soon as its answer has been read.
Values FleetLoop(Worker& worker, int count, int workers)
{
    const Links& fleet = worker.Fleet(workers);
    const int passes = (count + workers - 1) / workers;
    const Stopwatch watch(worker.DaemonClock());
    SendOnEach(fleet);
    for (int pass = 1; pass < passes; ++pass) {
        for (size_t i = 0; i < fleet.size(); ++i) {
            ReceiveOn(*fleet[i]);
            SendOn(*fleet[i], i);
        }
    }
    ReceiveOnEach(fleet);
    const double messages = static_cast<double>(passes) * workers;
    return {{"rate", 1e9 * messages / watch.Elapsed()}, {"daemon_cpu", watch.DaemonCpu() / messages}};
}

}  // namespace bench
