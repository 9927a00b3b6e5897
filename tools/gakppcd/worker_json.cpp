#include "worker_json.h"

#include <nlohmann/json.hpp>

namespace tools {
namespace {

Json OrNull(bool known, const Json& value)
{
    return known ? value : Json();
}

}  // namespace

void AddWorker(Json& line, const Worker& worker)
{
    const auto age = worker.HeartbeatAge();
    line["device"] = worker.device;
    line["process_type"] = ProcessName(worker.type);
    line["pid"] = worker.pid;
    line["state"] = Name(worker.state);
    line["heartbeats"] = worker.heartbeats;
    line["heartbeat_age"] = age.has_value() ? Json(*age) : Json();
}

Json ToJson(const Worker& worker)
{
    Json line;
    AddWorker(line, worker);
    const Peer peer = worker.peer.value_or(Peer{});
    line["real_pid"] = OrNull(peer.pid != 0, peer.pid);
    line["real_uid"] = OrNull(peer.pid != 0, peer.uid);
    line["since"] = UtcTime(worker.since);
    line["connected"] = worker.connected;
    line["spawned"] = worker.spawned;
    return line;
}

}  // namespace tools
