#include "daemon.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gakppc/gak_limits.h>
#include <gakppc/ppc.h>
#include <gakppc/ppc_server.h>
#include <gakppc/status_table.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>

#include "common/exit_error.h"
#include "common/killed_tap.h"
#include "common/listeners.h"
#include "common/message.h"
#include "common/ppc_socket.h"
#include "message_queue.h"

namespace tools {
namespace {

using qel::PPCMessage;
using qel::PpcServer;

constexpr int kTickMs = 500;
constexpr std::chrono::seconds kKillTime{2};

MessageQueue& ReceivedMessages()
{
    static MessageQueue queue;
    return queue;
}

void QueueMessage(const PPCMessage& message)
{
    ReceivedMessages().Push(message);
}

View::Mode ModeOf(const DaemonOptions& options)
{
    if (options.json) {
        return View::Mode::kJson;
    }
    return OutputIsTerminal() ? View::Mode::kTable : View::Mode::kLines;
}

}  // namespace

Daemon::Daemon(const DaemonOptions& options)
    : options_(options), spawner_(options.workerProgram, signals_.FormerMask()), view_(ModeOf(options), workers_)
{
    if (options.duration >= 0) {
        end_.emplace(Seconds(options.duration));
    }
}

void Daemon::Open()
{
    const auto others = ListenersAt(kSocketPath);
    if (!others.empty() && !options_.replace) {
        throw ExitError(kExitFailed, fmt::format("process {} listens at {} already (--replace replaces its socket)",
                                                 others.front().pid, kSocketPath));
    }
    if (RemoveSavedSocket()) {
        view_.Note(fmt::format("removed {}, which a killed tap has left", kSavedSocketPath));
    }
    if (!options_.capture.empty()) {
        capture_.emplace(options_.capture);
    }
    PpcServer& server = PpcServer::GetInstance();
    for (const auto type : {PPCMessage::START_RSP, PPCMessage::SHUTDOWN_RSP, PPCMessage::HEARTBEAT,
                            PPCMessage::NOTIFY_VEXOINFO, PPCMessage::ABNORMAL, PPCMessage::SOCKET_CLOSE}) {
        server.RegPPCSerMsgProcFunc(type, QueueMessage);
    }
    if (ppcInit() != 0 || server.CreateServer(qel::kPpcServerId) != qel::kStatusOk) {
        throw ExitError(kExitFailed, fmt::format("cannot serve {} (see gakppctl doctor)", kSocketPath));
    }
}

void Daemon::SpawnWorkers()
{
    for (const SpawnRequest& request : options_.spawn) {
        for (uint32_t i = 0; i < request.count; ++i) {
            controller_.Spawn(request.device, request.type);
        }
    }
}

int Daemon::Run()
{
    Open();
    view_.Event("SERVING", nullptr, fmt::format("process {} at {}", getpid(), kSocketPath));
    SpawnWorkers();
    LineReader input(STDIN_FILENO);
    while (!stopLimit_.has_value() || (!IsStopped() && !stopLimit_->Passed())) {
        Step(input);
    }
    KillRemaining();
    PpcServer::GetInstance().Destroy();
    for (const PPCMessage& message : ReceivedMessages().PopAll()) {
        OnMessage(message);
    }
    orderly_ = FinishCapture() && orderly_;
    view_.Event("ENDED", nullptr, orderly_ ? "in order" : "not in order");
    return orderly_ && !view_.HasLostEvents() ? kExitOk : kExitFailed;
}

int Daemon::StepTimeoutMs() const
{
    int timeout = kTickMs;
    for (const auto& deadline : {end_, stopLimit_}) {
        timeout = deadline.has_value() ? std::min(timeout, deadline->RemainingMs()) : timeout;
    }
    return timeout;
}

void Daemon::Step(LineReader& input)
{
    view_.Refresh();
    pollfd events[] = {{signals_.get(), POLLIN, 0},
                       {ReceivedMessages().Descriptor(), POLLIN, 0},
                       {input.CanRead() ? STDIN_FILENO : -1, POLLIN, 0}};
    poll(events, 3, StepTimeoutMs());
    for (const PPCMessage& message : ReceivedMessages().PopAll()) {
        OnMessage(message);
    }
    OnSignals();
    if (events[2].revents != 0) {
        OnInput(input);
    }
    if (HasPassed(end_) || view_.HasLostEvents()) {
        BeginStop();
    }
    NoteCaptureProblem();
    PpcServer::GetInstance().JoinAllPPCRcvThreads();
}

void Daemon::NoteCaptureProblem()
{
    const std::string problem = capture_.has_value() ? capture_->TakeProblem() : "";
    if (!problem.empty()) {
        view_.Note(problem);
    }
}

// Whether the capture, if there is one, is complete.
bool Daemon::FinishCapture()
{
    const bool complete = !capture_.has_value() || capture_->Finish();
    NoteCaptureProblem();
    return complete;
}

void Daemon::OnSignals()
{
    for (int signal = 0; (signal = signals_.Next()) != 0;) {
        if (signal == SIGCHLD) {
            Reap();
        } else if (signal == SIGWINCH) {
            continue;  // the next step redraws the table
        } else if (signal == SIGCONT) {
            view_.Redraw();  // a shell has written to the terminal meanwhile
        } else if (stopLimit_.has_value()) {
            stopLimit_.emplace(Clock::duration::zero());  // the second one cuts the grace short
        } else {
            BeginStop();
        }
    }
}

void Daemon::OnMessage(const PPCMessage& message)
{
    Worker* const worker = workers_.OnMessage(message);
    if (worker == nullptr) {
        view_.Event(TypeName(message.type()), nullptr, "a connection that brought no message");
        return;
    }
    view_.Event(TypeName(message.type()), worker,
                message.type() == PPCMessage::NOTIFY_VEXOINFO
                    ? fmt::format("host pid {}, libraries: {}", message.host_pid(),
                                  fmt::join(message.lib_names().lib_name(), " "))
                    : "");
    if (message.type() == PPCMessage::START_RSP) {
        controller_.OnStarted(*worker);
    } else if (message.type() == PPCMessage::NOTIFY_VEXOINFO && options_.autoCustom) {
        controller_.ProvideCustom(*worker);
    }
}

void Daemon::OnInput(LineReader& input)
{
    const std::vector<std::string> lines = input.Take();
    view_.Answer("");
    for (const std::string& line : lines) {
        OnCommand(line);
    }
    if (input.AtEnd()) {
        view_.SetPrompt("no commands: standard input has ended; SIGTERM ends gakppcd");
    }
}

void Daemon::OnCommand(const std::string& line)
{
    try {
        const Command command = ParseCommand(line);
        if (command.kind == CommandKind::kQuit) {
            BeginStop();
        } else if (command.kind == CommandKind::kHelp) {
            view_.Answer(std::string("commands:\n") + kCommandHelp);
        } else {
            controller_.Execute(command);
        }
    } catch (const std::invalid_argument& error) {
        view_.Answer(error.what());
    }
}

void Daemon::Reap()
{
    while (const auto reaped = ReapOne()) {
        if (const Worker* worker = workers_.OnReaped(reaped->pid, reaped->orderly)) {
            orderly_ = orderly_ && (!stopLimit_.has_value() || reaped->orderly);
            view_.Event("EXIT", worker, reaped->how);
        }
    }
}

void Daemon::BeginStop()
{
    if (stopLimit_.has_value()) {
        return;
    }
    end_.reset();
    stopLimit_.emplace(Seconds(options_.grace));
    view_.Event("STOPPING");
    controller_.BeginStop();
    controller_.ShutdownAll();
}

bool Daemon::IsStopped() const
{
    return std::all_of(workers_.All().begin(), workers_.All().end(),
                       [](const WorkerTable::Map::value_type& entry) { return entry.second.HasEnded(); });
}

// What has not ended in time: spawned workers are killed, the connections of others are cut.
void Daemon::KillRemaining()
{
    orderly_ = orderly_ && IsStopped() && !controller_.SpawnFailed();
    for (const auto& [key, worker] : workers_.All()) {
        if (worker.living) {
            kill(static_cast<pid_t>(worker.pid), SIGKILL);
        }
    }
    const Deadline deadline(kKillTime);
    const auto living = [](const WorkerTable::Map::value_type& entry) { return entry.second.living; };
    while (std::any_of(workers_.All().begin(), workers_.All().end(), living) &&
           WaitReadable(signals_.get(), deadline)) {
        OnSignals();
    }
}

}  // namespace tools
