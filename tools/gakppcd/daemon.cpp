#include "daemon.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gakppc/gak_limits.h>
#include <gakppc/ppc.h>
#include <gakppc/ppc_server.h>
#include <gakppc/status_table.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>

#include "common/control_path.h"
#include "common/exit_error.h"
#include "common/killed_tap.h"
#include "common/listeners.h"
#include "common/message.h"
#include "common/ppc_socket.h"
#include "control_answer.h"
#include "control_order.h"
#include "session_peer.h"

namespace tools {
namespace {

using qel::PPCMessage;
using qel::PpcServer;

constexpr int kTickMs = 500;
constexpr std::chrono::seconds kKillTime{2};
constexpr std::chrono::seconds kAnswerTime{1};

MessageQueue& ReceivedMessages()
{
    static MessageQueue queue;
    return queue;
}

void QueueMessage(const PPCMessage& message)
{
    ReceivedMessages().Push({message, SessionPeer()});
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
        const pid_t pid = others.front().pid;
        const std::string process =
            pid == 0 ? "a process that cannot be seen from here" : fmt::format("process {}", pid);
        throw ExitError(kExitFailed,
                        fmt::format("{} listens at {} already (--replace replaces its socket)", process, kSocketPath));
    }
    OpenControl();
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

// Whoever names a path relies on it. The default one is a courtesy, as for a second daemon of the same user.
void Daemon::OpenControl()
{
    const std::string path = options_.control.empty() ? DefaultControlPath() : options_.control;
    const auto handler = [this](const std::string& line) { return OnOrder(line); };
    try {
        if (path.empty()) {
            throw ExitError(kExitFailed, fmt::format("no control socket: {} (--control names one)", kNoControlPath));
        }
        if (options_.control.empty()) {
            mkdir(path.substr(0, path.rfind('/')).c_str(), 0700);  // unless it exists; or binding says why not
        }
        control_ = std::make_unique<ControlServer>(path, handler);
    } catch (const ExitError& error) {
        if (!options_.control.empty()) {
            throw;
        }
        view_.Note(error.what());
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
    serviceManager_.Ready();
    Serve();
    KillRemaining();
    PpcServer::GetInstance().Destroy();
    for (const ReceivedMessage& received : ReceivedMessages().PopAll()) {
        OnMessage(received);
    }
    orderly_ = FinishCapture() && orderly_;
    view_.Event("ENDED", nullptr, orderly_ ? "in order" : "not in order");
    hasEnded_ = true;
    if (control_ != nullptr) {
        control_->Finish(Deadline(kAnswerTime));
    }
    return orderly_ && !view_.HasLostEvents() ? kExitOk : kExitFailed;
}

void Daemon::Serve()
{
    SpawnWorkers();
    LineReader input(STDIN_FILENO);
    while (!stopLimit_.has_value() || (!IsStopped() && !stopLimit_->Passed())) {
        Step(input);
    }
}

int Daemon::StepTimeoutMs() const
{
    if (control_ != nullptr && control_->HasWork()) {
        return 0;
    }
    int timeout = serviceManager_.TimeoutMs(kTickMs);
    for (const auto& deadline : {end_, stopLimit_}) {
        timeout = deadline.has_value() ? std::min(timeout, deadline->RemainingMs()) : timeout;
    }
    return timeout;
}

void Daemon::Step(LineReader& input)
{
    view_.Refresh();
    serviceManager_.Alive(CountRunning());
    std::vector<pollfd> events{{signals_.get(), POLLIN, 0},
                               {ReceivedMessages().Descriptor(), POLLIN, 0},
                               {input.CanRead() ? STDIN_FILENO : -1, POLLIN, 0}};
    if (control_ != nullptr) {
        control_->AddTo(events);
    }
    poll(events.data(), events.size(), StepTimeoutMs());
    for (const ReceivedMessage& received : ReceivedMessages().PopAll()) {
        OnMessage(received);
    }
    OnSignals();
    if (events[2].revents != 0) {
        OnInput(input);
    }
    if (control_ != nullptr) {
        control_->Serve();
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

size_t Daemon::CountRunning() const
{
    const auto& workers = workers_.All();
    return static_cast<size_t>(
        std::count_if(workers.begin(), workers.end(),
                      [](const WorkerTable::Map::value_type& entry) { return !entry.second.HasEnded(); }));
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

void Daemon::OnMessage(const ReceivedMessage& received)
{
    const PPCMessage& message = received.message;
    Worker* const worker = workers_.OnMessage(message, received.sender);
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
        controller_.OnCustomRequest(*worker);
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
        view_.Answer(command.kind == CommandKind::kHelp ? std::string("commands:\n") + kCommandHelp
                                                        : Execute(command).problem);
    } catch (const std::invalid_argument& error) {
        view_.Answer(error.what());
    }
}

ControlAnswer Daemon::OnOrder(const std::string& line)
{
    const auto now = [](const std::string& text) { return [text] { return std::optional<std::string>(text); }; };
    ControlOrder order;
    try {
        order = ParseOrder(line);
    } catch (const std::invalid_argument& error) {
        return now(RefusalText(error.what()));
    }
    const Outcome outcome = Execute(order.command);
    if (!outcome.problem.empty()) {
        return now(RefusalText(outcome.problem));
    }
    if (!order.wait) {
        return now(AnswerText(workers_, outcome.workers));
    }
    if (order.command.kind == CommandKind::kQuit) {
        return [this] { return StopAnswerText(); };
    }
    return [this, workers = outcome.workers] { return ShutdownAnswerText(workers_, workers); };
}

Outcome Daemon::Execute(const Command& command)
{
    if (command.kind == CommandKind::kQuit) {
        BeginStop();
        return {};
    }
    if (command.kind == CommandKind::kWorkers) {
        Outcome all;
        for (const auto& [key, worker] : workers_.All()) {
            all.workers.push_back(key);
        }
        return all;
    }
    return controller_.Execute(command);
}

std::optional<std::string> Daemon::StopAnswerText() const
{
    if (!hasEnded_) {
        return std::nullopt;
    }
    return orderly_ ? AnswerText(workers_, {}) : RefusalText("the daemon has ended, but not in order");
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
    serviceManager_.Stopping();
    controller_.BeginStop();
    if (const Outcome outcome = controller_.ShutdownAll(); !outcome.problem.empty()) {
        view_.Note(outcome.problem);
    }
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
