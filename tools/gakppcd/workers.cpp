#include "workers.h"

#include <algorithm>

namespace tools {
namespace {

using qel::PPCMessage;

constexpr size_t kMaxShown = 200;

bool IsOver(WorkerState state)
{
    return state == WorkerState::kStopped || state == WorkerState::kAbnormal || state == WorkerState::kDied;
}

void Update(Worker& worker, PPCMessage::MsgType type)
{
    switch (type) {
        case PPCMessage::START_RSP:
            worker.state = WorkerState::kStarted;
            break;
        case PPCMessage::SHUTDOWN_RSP:
            worker.state = WorkerState::kStopped;
            break;
        case PPCMessage::ABNORMAL:
            worker.state = WorkerState::kAbnormal;
            break;
        case PPCMessage::SOCKET_CLOSE:
            worker.state = IsOver(worker.state) ? worker.state : WorkerState::kLost;
            break;
        default:
            worker.state = worker.state == WorkerState::kStopping ? worker.state : WorkerState::kRunning;
            break;
    }
    worker.connected = type != PPCMessage::SOCKET_CLOSE;
    if (type == PPCMessage::HEARTBEAT) {
        ++worker.heartbeats;
        worker.lastHeartbeat = Clock::now();
    }
}

}  // namespace

const char* Name(WorkerState state)
{
    switch (state) {
        case WorkerState::kSpawned:
            return "SPAWNED";
        case WorkerState::kStarted:
            return "STARTED";
        case WorkerState::kRunning:
            return "RUNNING";
        case WorkerState::kAbnormal:
            return "ABNORMAL";
        case WorkerState::kStopping:
            return "STOPPING";
        case WorkerState::kStopped:
            return "STOPPED";
        case WorkerState::kLost:
            return "LOST";
        default:
            return "DIED";
    }
}

std::optional<double> Worker::HeartbeatAge() const
{
    if (!lastHeartbeat.has_value()) {
        return std::nullopt;
    }
    return std::chrono::duration<double>(Clock::now() - *lastHeartbeat).count();
}

Worker* WorkerTable::OnMessage(const PPCMessage& message, const Sender& sender)
{
    Worker* worker = Find(message.src_id(), message.sub_proc_pid());
    if (worker == nullptr) {
        if (message.type() == PPCMessage::SOCKET_CLOSE) {
            return nullptr;
        }
        ForgetOld();
        worker = &workers_[{message.src_id(), message.sub_proc_pid()}];
        worker->device = message.src_id();
        worker->pid = message.sub_proc_pid();
        worker->type = PPCMessage::COMPUTE;
    }
    // A request for the custom process speaks of that process, not of the one that asks, which is a compute process.
    if (message.type() != PPCMessage::SOCKET_CLOSE && message.type() != PPCMessage::NOTIFY_VEXOINFO) {
        worker->type = message.proc_type();
    }
    if (message.type() != PPCMessage::SOCKET_CLOSE) {
        worker->since = worker->HasEnded() ? std::chrono::system_clock::now() : worker->since;
        worker->sender = sender;
    }
    Update(*worker, message.type());
    return worker;
}

Worker& WorkerTable::OnSpawned(uint32_t device, int type, pid_t pid)
{
    ForgetOld();
    // Its first message may have come before this.
    Worker& worker = workers_[{device, static_cast<uint32_t>(pid)}];
    worker.device = device;
    worker.pid = static_cast<uint32_t>(pid);
    worker.type = type;
    worker.since = std::chrono::system_clock::now();
    worker.spawned = true;
    worker.living = true;
    return worker;
}

Worker* WorkerTable::OnReaped(pid_t pid, bool orderly)
{
    for (auto& [key, worker] : workers_) {
        if (worker.pid == static_cast<uint32_t>(pid) && worker.living) {
            worker.living = false;
            // The acknowledgement of a worker that left in order may still be on its way.
            if (!orderly) {
                worker.state = worker.state == WorkerState::kAbnormal ? worker.state : WorkerState::kDied;
                worker.connected = false;
            }
            return &worker;
        }
    }
    return nullptr;
}

// The server tells of the end of a connection only when the worker had read everything before it left.
void WorkerTable::OnUnreachable(Worker& worker)
{
    worker.connected = false;
    worker.state = IsOver(worker.state) ? worker.state : WorkerState::kLost;
}

Worker* WorkerTable::Find(uint32_t device, uint32_t pid)
{
    const auto found = workers_.find({device, pid});
    return found == workers_.end() ? nullptr : &found->second;
}

Worker* WorkerTable::FindCustom(uint32_t device)
{
    const auto found = std::find_if(workers_.begin(), workers_.end(), [device](const Map::value_type& entry) {
        return entry.first.first == device && entry.second.type == PPCMessage::CUSTOM_COMPUTE &&
               !entry.second.HasEnded();
    });
    return found == workers_.end() ? nullptr : &found->second;
}

void WorkerTable::ForgetOld()
{
    for (auto entry = workers_.begin(); workers_.size() >= kMaxShown && entry != workers_.end();) {
        entry = entry->second.HasEnded() ? workers_.erase(entry) : std::next(entry);
    }
}

}  // namespace tools
