#include "controller.h"

#include <fmt/format.h>
#include <gakppc/gak_limits.h>
#include <gakppc/ppc_server.h>
#include <gakppc/status_table.h>

#include <stdexcept>
#include <utility>

#include "common/exit_error.h"
#include "common/message.h"
#include "common/statuses.h"

namespace tools {
namespace {

using qel::PPCMessage;
using qel::PpcServer;

}  // namespace

void Controller::Spawn(uint32_t device, int type)
{
    try {
        view_.Event("SPAWNED", &workers_.OnSpawned(device, type, spawner_.Start(device, type)));
    } catch (const ExitError& error) {
        spawnFailed_ = true;
        view_.Note(error.what());
    }
}

void Controller::OnStarted(Worker& worker)
{
    if (stopping_) {
        OrderShutdown(worker);
    }
    if (worker.type != PPCMessage::CUSTOM_COMPUTE) {
        return;
    }
    for (auto& [key, asker] : workers_.All()) {
        if (asker.device == worker.device && std::exchange(asker.waitsForCustom, false)) {
            Send(PPCMessage::START_RSP, PPCMessage::CUSTOM_COMPUTE, asker);
        }
    }
}

// A device has at most one custom process. The worker that asks gets the answer when that process has reported its
// start.
void Controller::ProvideCustom(Worker& asker)
{
    if (asker.state == WorkerState::kStopping || asker.state == WorkerState::kStopped) {
        return;
    }
    const Worker* const custom = workers_.FindCustom(asker.device);
    if (custom != nullptr && custom->state != WorkerState::kSpawned) {
        Send(PPCMessage::START_RSP, PPCMessage::CUSTOM_COMPUTE, asker);
        return;
    }
    asker.waitsForCustom = true;
    if (custom == nullptr && !stopping_) {
        Spawn(asker.device, PPCMessage::CUSTOM_COMPUTE);
    }
}

void Controller::Execute(const Command& command)
{
    if (command.kind == CommandKind::kShutdownAll) {
        ShutdownAll();
        return;
    }
    Worker* const worker = workers_.Find(command.device, command.pid);
    if (worker == nullptr) {
        throw std::invalid_argument(fmt::format("no worker with device {} and pid {}", command.device, command.pid));
    }
    if (command.kind == CommandKind::kShutdown) {
        OrderShutdown(*worker);
    } else {
        ProvideCustom(*worker);
    }
}

// A worker is addressed by its device and process id. `about` is the process type that the message speaks of.
bool Controller::Send(PPCMessage::MsgType type, int about, Worker& to)
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
        view_.Note(fmt::format("{} cannot be sent to device {} pid {}: {}", TypeName(type), to.device, to.pid,
                               StatusLabel(status)));
        return false;
    }
    view_.Event("SENT_" + TypeName(type), &to);
    return true;
}

void Controller::OrderShutdown(Worker& worker)
{
    if (!worker.connected) {
        view_.Note(fmt::format("device {} pid {} is not connected", worker.device, worker.pid));
        return;
    }
    // The order is the last message: a worker that leaves with one unread resets its connection, and nothing tells of
    // the end of that.
    worker.waitsForCustom = false;
    const WorkerState before = std::exchange(worker.state, WorkerState::kStopping);
    if (!Send(PPCMessage::SHUTDOWN, worker.type, worker) && worker.state == WorkerState::kStopping) {
        worker.state = before;
    }
}

void Controller::ShutdownAll()
{
    for (auto& [key, worker] : workers_.All()) {
        if (worker.connected && worker.state != WorkerState::kStopping && worker.state != WorkerState::kStopped) {
            OrderShutdown(worker);
        }
    }
}

}  // namespace tools
