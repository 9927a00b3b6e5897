// gakppctl worker: a worker process of any type, made of the library's own calls.

#include <fmt/format.h>
#include <gakppc/gak.h>
#include <gakppc/gak_limits.h>
#include <gakppc/ppc_client.h>
#include <gakppc/status_table.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <future>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <thread>

#include "common/deadline.h"
#include "common/message.h"
#include "subcommands.h"

namespace tools {
namespace {

constexpr uint32_t kMostWorkers = 10000;

struct Options {
    uint32_t device = 0;
    std::string type = "COMPUTE";
    double heartbeat = 1;
    std::vector<std::string> libs;
    uint32_t hostPid = 0;
    double crashAfter = -1;
    double abnormalAfter = -1;
    double duration = -1;
    double timeout = -1;
    uint32_t count = 1;
    bool json = false;
};

std::string FormatEvent(const Options& options, const std::string& event)
{
    if (!options.json) {
        return fmt::format("device {} {} pid {} {}\n", options.device, options.type, getpid(), event);
    }
    Json line;
    line["time"] = UtcTime(std::chrono::system_clock::now());
    line["event"] = event;
    line["device"] = options.device;
    line["process_type"] = options.type;
    line["pid"] = getpid();
    return JsonLine(line);
}

void PrintEvent(const Options& options, const std::string& event)
{
    Print(FormatEvent(options, event));
}

std::optional<Deadline> After(double seconds)
{
    return seconds < 0 ? std::nullopt : std::optional<Deadline>(Deadline(Seconds(seconds)));
}

// One worker from its connection to its end.
class Worker {
public:
    explicit Worker(const Options& options)
        : options_(options), type_(static_cast<GakWaitType>(ParseProcess(options.type)))
    {
    }

    int Run();

private:
    void Connect();
    void WaitForShutdown();
    void AskForCustomProcess();
    Clock::duration UntilNext() const;
    std::optional<int> HandleTimers();

    const Options& options_;
    const GakWaitType type_;
    std::future<uint32_t> shutdown_;  // what RecvData returns
    const std::optional<Deadline> crash_ = After(options_.crashAfter);
    const std::optional<Deadline> abnormal_ = After(options_.abnormalAfter);
    const std::optional<Deadline> end_ = After(options_.duration);
    const std::optional<Deadline> timeout_ = After(options_.timeout);
    Deadline nextHeartbeat_{Seconds(options_.heartbeat)};
};

void Worker::Connect()
{
    const auto type = static_cast<qel::PPCMessage::ProcessType>(type_);
    if (ppcInit() != 0 || qel::PpcClient::GetInstance()->GetPpcSession(options_.device, type) == nullptr) {
        throw ExitError(kExitNoDaemon, "no connection to a daemon (see gakppctl doctor)");
    }
}

// What GakWaitForShutdown does, in two steps: the report of the start is to be the first message of all.
void Worker::WaitForShutdown()
{
    const auto type = type_;
    qel::PpcClient* const client = qel::PpcClient::GetInstance();
    client->SendPpcMsg(options_.device, type, qel::PPCMessage::START_RSP);
    std::promise<uint32_t> result;
    shutdown_ = result.get_future();
    std::thread([client, device = options_.device, type, result = std::move(result)]() mutable {
        result.set_value(client->RecvData(device, type));
    }).detach();
}

void Worker::AskForCustomProcess()
{
    std::thread([options = options_] {
        std::vector<const char*> names;
        for (const std::string& name : options.libs) {
            names.push_back(name.c_str());
        }
        const auto count = static_cast<uint32_t>(names.size());
        const uint32_t result = CreateOrFindCustPid(count, names.data(), options.hostPid);
        // An exception must not leave this thread; the main thread meets the closed output as well.
        WriteOut(FormatEvent(options, result == 0 ? "CUSTOM_READY" : "CUSTOM_FAILED"));
    }).detach();
}

Clock::duration Worker::UntilNext() const
{
    int next = options_.heartbeat > 0 ? nextHeartbeat_.RemainingMs() : 1000;
    for (const auto& deadline : {crash_, abnormal_, end_, timeout_}) {
        next = deadline.has_value() ? std::min(next, deadline->RemainingMs()) : next;
    }
    return std::chrono::milliseconds(next);
}

// Does what is due. The exit status when the worker is to end.
std::optional<int> Worker::HandleTimers()
{
    if (HasPassed(crash_)) {
        PrintEvent(options_, "CRASH");
        static_cast<void>(raise(SIGKILL));  // does not return
    }
    if (HasPassed(abnormal_)) {
        GakDestory(options_.device, type_);
        PrintEvent(options_, "ABNORMAL");
        return kExitFailed;
    }
    if (HasPassed(end_)) {
        PrintEvent(options_, "LEFT");
        return kExitOk;
    }
    if (HasPassed(timeout_)) {
        PrintEvent(options_, "TIME_LIMIT");
        return kExitTimeLimit;
    }
    if (options_.heartbeat > 0 && nextHeartbeat_.Passed()) {
        GakHeartbeatSend(options_.device, type_);  // a lost connection is noticed by the other thread
        nextHeartbeat_ = Deadline(Seconds(options_.heartbeat));
    }
    return std::nullopt;
}

int Worker::Run()
{
    Connect();
    PrintEvent(options_, "CONNECTED");
    WaitForShutdown();
    if (!options_.libs.empty()) {
        AskForCustomProcess();
    }
    for (;;) {
        if (shutdown_.wait_for(UntilNext()) == std::future_status::ready) {
            const bool ordered = shutdown_.get() == qel::kStatusOk;
            PrintEvent(options_, ordered ? "SHUTDOWN" : "LOST");
            return ordered ? kExitOk : kExitFailed;
        }
        if (const auto status = HandleTimers()) {
            return *status;
        }
    }
}

int WaitForOne()
{
    int status = 0;
    while (waitpid(-1, &status, 0) == -1) {
        if (errno != EINTR) {
            return kExitFailed;
        }
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : kExitFailed;
}

// In a process of its own for each worker. The worst status is the result.
int RunSeveral(const Options& options)
{
    const pid_t parent = getpid();
    int worst = kExitOk;
    uint32_t started = 0;
    for (; started < options.count; ++started) {
        const pid_t pid = fork();
        if (pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);  // no worker outlives its parent
            if (getppid() != parent) {
                _exit(kExitFailed);
            }
            return Worker(options).Run();
        }
        if (pid == -1) {
            PrintError(fmt::format("fork: {}", strerror(errno)));
            worst = kExitFailed;
            break;
        }
    }
    for (; started > 0; --started) {
        worst = std::max(worst, WaitForOne());
    }
    return worst;
}

int Run(const Options& options)
{
    return options.count == 1 ? Worker(options).Run() : RunSeveral(options);
}

void AddOptions(CLI::App& app, Options& options)
{
    app.add_option("--device", options.device, "Device, 0 to 3")
        ->check(CLI::Range(0U, qel::MAX_DEVNUM_PER_OS - 1).description(""))
        ->type_name("N");
    app.add_option("--type", options.type, "Process type: ZOLT, COMPUTE or CUSTOM_COMPUTE (COMPUTE)")
        ->transform(CLI::IsMember({"ZOLT", "COMPUTE", "CUSTOM_COMPUTE"}, CLI::ignore_case).description(""))
        ->type_name("TYPE");
    AddSeconds(app, "--heartbeat", options.heartbeat, "Time between two heartbeats; 0: none (1)");
    app.add_option("--libs", options.libs, "Ask for the custom compute process with these libraries; only as COMPUTE")
        ->delimiter(',')
        ->type_name("NAME[,NAME...]");
    app.add_option("--host-pid", options.hostPid, "The host process to name when asking (0)")->type_name("PID");
    AddSeconds(app, "--crash-after", options.crashAfter, "Die by SIGKILL after this time");
    AddSeconds(app, "--abnormal-after", options.abnormalAfter, "Report an abnormal end after this time, and leave");
    AddSeconds(app, "--for", options.duration, "Leave after this time");
    AddSeconds(app, "--timeout", options.timeout, "Fail when no shutdown has been ordered after this time");
    AddCount(app, "--count", options.count, "So many workers, each a process of its own (1)", kMostWorkers);
    app.add_flag("--json", options.json, "Print one JSON object per line");
}

}  // namespace

Subcommand AddWorker(CLI::App& program)
{
    CLI::App* app = program.add_subcommand(
        "worker", "Be a worker: report the start, send heartbeats, end when the daemon orders the shutdown");
    auto options = std::make_shared<Options>();
    AddOptions(*app, *options);
    app->callback([options] {
        // The request and its answer go over the session of a compute process.
        if (!options->libs.empty() && options->type != "COMPUTE") {
            throw CLI::ValidationError("--libs", "only a COMPUTE worker can ask for the custom process");
        }
    });
    AddStandardOptions(*app,
                       "  $ gakppctl worker --device 0 --type ZOLT --heartbeat 0.5\n"
                       "  $ gakppctl worker --device 1 --libs libfirst.so,libsecond.so --host-pid 4711\n"
                       "  $ gakppctl worker --device 2 --count 8 --crash-after 5",
                       {kExitNoDaemon, kExitTimeLimit});
    return {app, [options] { return Run(*options); }, false};
}

}  // namespace tools
