#ifndef GAKPPC_WORKERS_H
#define GAKPPC_WORKERS_H

#include <gakppc/qel_message.pb.h>
#include <sys/types.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include "common/deadline.h"
#include "common/output.h"
#include "session_peer.h"

namespace tools {

enum class WorkerState {
    kSpawned,   // started by this daemon, no message yet
    kStarted,   // has reported its start
    kRunning,   // has sent a heartbeat, or another message
    kAbnormal,  // has reported an abnormal end
    kStopping,  // its shutdown has been ordered
    kStopped,   // has acknowledged the order
    kLost,      // its connection ended without that
    kDied,      // its process ended without that
};
const char* Name(WorkerState state);

struct Worker {
    uint32_t device = 0;
    uint32_t pid = 0;              // as its messages claim
    std::optional<Sender> sender;  // of the last one
    SystemTime since;              // it was spawned or, with another daemon's workers, its first message came
    int type = 0;                  // a PPCMessage::ProcessType
    WorkerState state = WorkerState::kSpawned;
    uint64_t heartbeats = 0;
    std::optional<Clock::time_point> lastHeartbeat;
    bool spawned = false;         // by this daemon
    bool living = false;          // spawned and not reaped yet
    bool connected = false;       // between its first message and the end of its connection
    bool waitsForCustom = false;  // for the device's custom process

    bool HasEnded() const { return !living && !connected; }
    std::optional<double> HeartbeatAge() const;
};

// The workers, by device and process id. Those that have ended are kept to be shown, up to a limit.
class WorkerTable {
public:
    using Key = std::pair<uint32_t, uint32_t>;
    using Map = std::map<Key, Worker>;

    // The entry of the worker that a message names, updated by it. Null for the end of a connection that
    // never carried a message.
    Worker* OnMessage(const qel::PPCMessage& message, const Sender& sender);
    Worker& OnSpawned(uint32_t device, int type, pid_t pid);
    // Null when the process is none of the spawned ones.
    Worker* OnReaped(pid_t pid, bool orderly);

    // Sending to it has failed: its connection has ended.
    static void OnUnreachable(Worker& worker);

    Worker* Find(uint32_t device, uint32_t pid);
    Worker* FindCustom(uint32_t device);

    Map& All() { return workers_; }
    const Map& All() const { return workers_; }

private:
    void ForgetOld();

    Map workers_;
};

}  // namespace tools

#endif
