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
    const Sender sender = worker.sender.value_or(Sender{});
    line["real_pid"] = OrNull(sender.peer.pid != 0, sender.peer.pid);
    line["real_uid"] = OrNull(sender.peer.pid != 0, sender.peer.uid);
    line["socket"] = OrNull(sender.socket != 0, sender.socket);
    line["since"] = UtcTime(worker.since);
    line["connected"] = worker.connected;
    line["spawned"] = worker.spawned;
    return line;
}

}  // namespace tools
