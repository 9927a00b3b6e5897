#ifndef GAKPPC_WORKER_H
#define GAKPPC_WORKER_H

#include <ctime>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "candidate.h"
#include "commands.h"

// What a worker measures. Times are in nanoseconds; "cpu" is processor time of both processes.
namespace bench {

class Worker {
public:
    // `daemonClock` counts the daemon's processor time.
    Worker(std::string address, clockid_t daemonClock) : address_(std::move(address)), daemonClock_(daemonClock) {}

    // The connection, opened on first use.
    Link& MainLink();
    void CloseMainLink() { link_.reset(); }
    // `count` connections that are kept open, each a worker of its own to the daemon.
    std::vector<std::unique_ptr<Link>>& Fleet(int count);
    std::unique_ptr<Link> NewLink() const { return Connect(address_); }

    clockid_t DaemonClock() const { return daemonClock_; }

private:
    const std::string address_;
    const clockid_t daemonClock_;
    std::unique_ptr<Link> link_;
    std::vector<std::unique_ptr<Link>> fleet_;
};

// Waits until the daemon has read all that was sent before.
void AwaitDaemon(Link& link);

// `count` heartbeats, each answered before the next: p50, p99, p999, cpu of one.
Values RoundTrip(Worker& worker, int count);
// The same without looking at a clock in between, for counting what one costs.
Values UntimedRoundTrip(Worker& worker, int count);
// `count` times 32 heartbeats and one answered message: cpu of a heartbeat.
Values Burst(Worker& worker, int count);
// `count` one-way messages in a row, heartbeats or with a text of `payload` bytes: rate and bytes each second, cpu of
// a message.
Values Flood(Worker& worker, int count, int payload);
// `count` new connections, up to the answer of the first message: p50.
Values ConnectTime(Worker& worker, int count);
// `workers` connections in a closed loop, each with one answered heartbeat in flight, `count` in all: rate, daemon_cpu
// of one.
Values FleetLoop(Worker& worker, int count, int workers);

}  // namespace bench

#endif
