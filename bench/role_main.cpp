// The program of one candidate: its daemon, or a worker that measures.

#include <unistd.h>

#include <cstdlib>
#include <iostream>

#include "candidate.h"
#include "figures/worker.h"

namespace {

void RunDaemon(const std::string& address)
{
    const std::unique_ptr<bench::Daemon> daemon = bench::Serve(address);
    bench::ServeCommands({{"tidy", [&](int, int) {
                               daemon->Tidy();
                               return bench::Values{};
                           }}});
}

void RunWorker(const std::string& address, pid_t daemonPid)
{
    clockid_t clock;
    bench::Require(clock_getcpuclockid(daemonPid, &clock) == 0, "clock_getcpuclockid");
    bench::Worker worker(address, clock);
    bench::ServeCommands({
        {"round_trip", [&](int count, int) { return RoundTrip(worker, count); }},
        {"untimed_round_trip", [&](int count, int) { return UntimedRoundTrip(worker, count); }},
        {"burst", [&](int count, int) { return Burst(worker, count); }},
        {"flood", [&](int count, int payload) { return Flood(worker, count, payload); }},
        {"connect", [&](int count, int) { return ConnectTime(worker, count); }},
        {"fleet", [&](int count, int workers) { return FleetLoop(worker, count, workers); }},
    });
}

}  // namespace

int main(int argc, char** argv)
{
    const std::string role = argc > 1 ? argv[1] : "";
    if (role == "daemon" && argc == 3) {
        RunDaemon(argv[2]);
    } else if (role == "worker" && argc == 4) {
        RunWorker(argv[2], static_cast<pid_t>(atoi(argv[3])));
    } else {
        std::cerr << "usage: " << argv[0] << " daemon ADDRESS | worker ADDRESS DAEMON_PID\n";
        return 2;
    }
    _exit(0);  // connections and receiving threads go with the process
}
