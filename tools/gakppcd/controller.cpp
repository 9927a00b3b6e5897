#include "controller.h"

#include <fmt/format.h>
#include <gakppc/gak_limits.h>
#include <gakppc/ppc_server.h>
#include <gakppc/status_table.h>

#include <utility>

#include "common/exit_error.h"
#include "common/message.h"
#include "common/statuses.h"

namespace tools {
namespace {

using qel::PPCMessage;
using qel::PpcServer;

bool IsShuttingDown(const Worker& worker)
{
    return worker.state == WorkerState::kStopping || worker.state == WorkerState::kStopped;
}

}  // namespace

void Controller::Note(const std::string& problem)
{
    if (!problem.empty()) {
        view_.Note(problem);
    }
}

void Controller::Spawn(uint32_t device, int type)
{
    Note(TrySpawn(device, type));
}

std::string Controller::TrySpawn(uint32_t device, int type)
{
    try {
        view_.Event("SPAWNED", &workers_.OnSpawned(device, type, spawner_.Start(device, type)));
        return {};
    } catch (const ExitError& error) {
        spawnFailed_ = true;
        return error.what();
    }
}

void Controller::OnStarted(Worker& worker)
{
    if (stopping_) {
        Note(OrderShutdown(worker));
    }
    if (worker.type != PPCMessage::CUSTOM_COMPUTE) {
        return;
    }
    for (auto& [key, asker] : workers_.All()) {
        if (asker.device == worker.device && std::exchange(asker.waitsForCustom, false)) {
            Note(Send(PPCMessage::START_RSP, PPCMessage::CUSTOM_COMPUTE, asker));
        }
    }
}

void Controller::OnCustomRequest(Worker& worker)
{
    if (!IsShuttingDown(worker)) {
        Note(ProvideCustom(worker));
    }
}

// A device has at most one custom process. The worker that asks gets the answer when that process has reported its
// start.
std::string Controller::ProvideCustom(Worker& asker)
{
    const Worker* const custom = workers_.FindCustom(asker.device);
    if (custom != nullptr && custom->state != WorkerState::kSpawned) {
        return Send(PPCMessage::START_RSP, PPCMessage::CUSTOM_COMPUTE, asker);
    }
    asker.waitsForCustom = true;
    return custom == nullptr && !stopping_ ? TrySpawn(asker.device, PPCMessage::CUSTOM_COMPUTE) : "";
}

Outcome Controller::Execute(const Command& command)
{
    if (command.kind == CommandKind::kShutdownAll) {
        return ShutdownAll();
    }
    Worker* const worker = workers_.Find(command.device, command.pid);
    if (worker == nullptr) {
        return {{}, fmt::format("no worker with device {} and pid {}", command.device, command.pid)};
    }
    if (!worker->connected) {
        return {{}, fmt::format("device {} pid {} is not connected", command.device, command.pid)};
    }
    if (command.kind == CommandKind::kStartCustom && IsShuttingDown(*worker)) {
        return {{}, fmt::format("device {} pid {} is shutting down", command.device, command.pid)};
    }
    return {{{command.device, command.pid}},
            command.kind == CommandKind::kShutdown ? OrderShutdown(*worker) : ProvideCustom(*worker)};
}

// A worker is addressed by its device and process id. `about` is the process type that the message speaks of.
std::string Controller::Send(PPCMessage::MsgType type, int about, Worker& to)
{
    PPCMessage message;
    message.set_type(type);
    message.set_src_id(qel::kPpcServerId);
    message.set_dest_id(to.device);
    message.set_proc_type(static_cast<PPCMessage::ProcessType>(about));
    message.set_sub_proc_pid(to.pid);
    const uint32_t status = PpcServer::GetInstance().SendData(message);
    if (status != qel::kStatusOk) {
        workers_.OnUnreachable(to);
        return fmt::format("{} cannot be sent to device {} pid {}: {}", TypeName(type), to.device, to.pid,
                           StatusLabel(status));
    }
    view_.Event("SENT_" + TypeName(type), &to);
    return {};
}

// The order is the last message, and comes once: a worker that leaves with a message unread resets its connection, and
// nothing tells of the end of that.
std::string Controller::OrderShutdown(Worker& worker)
{
    if (IsShuttingDown(worker)) {
        return {};
    }
    worker.waitsForCustom = false;
    worker.state = WorkerState::kStopping;
    return Send(PPCMessage::SHUTDOWN, worker.type, worker);
}

Outcome Controller::ShutdownAll()
{
    Outcome outcome;
    for (auto& [key, worker] : workers_.All()) {
        if (!worker.connected) {
            continue;
        }
        outcome.workers.push_back(key);
        const std::string problem = OrderShutdown(worker);
        outcome.problem += (outcome.problem.empty() || problem.empty() ? "" : "; ") + problem;
    }
    return outcome;
}

}  // namespace tools
