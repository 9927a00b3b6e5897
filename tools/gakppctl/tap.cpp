// gakppctl tap: shows every message between the workers that connect from now on and the daemon.
//
// It replaces the daemon's socket by its own (socket_takeover.h), forwards everything (relay.h) and prints it on
// another thread (record_printer.h). When it is told to stop it restores the daemon's socket at once. Connections
// through the tap are forwarded until they end, because cutting them would end their workers.

#include <fmt/format.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <unistd.h>

#include <memory>
#include <optional>
#include <utility>

#include "common/signals.h"
#include "record_output.h"
#include "relay.h"
#include "socket_takeover.h"
#include "subcommands.h"

namespace tools {
namespace {

constexpr int kTickMs = 200;
constexpr std::chrono::milliseconds kTick{kTickMs};
// A daemon that has just bound its socket listens in a moment.
constexpr int kSoonMs = 5;
constexpr std::chrono::seconds kHurryTime{1};
constexpr std::chrono::milliseconds kGraceForLateWorkers{20};

struct Options {
    RecordOptions records;
    double linger = -1;
    bool follow = false;
};

class Tap {
public:
    explicit Tap(const Options& options);
    int Run();

private:
    void Serve();
    void Linger();
    bool ShouldStop();
    bool StaysDisplaced();
    int StepTimeoutMs() const;

    const Options& options_;
    SignalFd signals_{SIGINT, SIGTERM, SIGHUP};
    Fd directoryChanged_;
    RecordOutput output_;
    SocketTakeover takeover_;
    Relay relay_;
    std::optional<Deadline> hurry_;  // set while another socket is in our place
    int exit_ = kExitOk;
};

// None when we may not read the directory; the tap looks at its place every kTick anyway.
Fd WatchSocketDirectory()
{
    Fd watch(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (watch.valid() && inotify_add_watch(watch.get(), kSocketDir, IN_CREATE | IN_MOVED_TO) == -1) {
        watch.Reset();
    }
    return watch;
}

void Drain(const Fd& watch)
{
    char events[4096];
    while (watch.valid() && read(watch.get(), events, sizeof(events)) > 0) {
    }
}

Tap::Tap(const Options& options)
    : options_(options),
      output_(options.records),
      relay_(takeover_.Listener().get(), kSavedSocketPath, [this](Record&& record) { output_.Push(std::move(record)); })
{
    relay_.WakeOn(signals_.get());
    relay_.WakeOn(output_.FailedFd());
    if (options.follow) {
        directoryChanged_ = WatchSocketDirectory();
    }
    if (directoryChanged_.valid()) {
        relay_.WakeOn(directoryChanged_.get());
    }
    output_.StartTime();
}

bool Tap::ShouldStop()
{
    if (output_.HasFailed()) {
        exit_ = kExitFailed;
        return true;
    }
    if (signals_.Next() != 0 || output_.IsTimeOver()) {
        return true;
    }
    Drain(directoryChanged_);
    if (!relay_.IsRefusing() && takeover_.HasLostDaemon()) {
        relay_.Refuse();
        PrintError("the daemon has ended; workers that connect are refused, as without a tap");
    }
    if (!takeover_.IsInPlace() && !StaysDisplaced()) {
        exit_ = kExitFailed;
        return true;
    }
    return false;
}

// Another socket is in our place. False when that ends the tap.
bool Tap::StaysDisplaced()
{
    if (!options_.follow) {
        PrintError("another daemon has replaced the tap's socket by its own");
        return false;
    }
    if (!hurry_.has_value()) {
        hurry_.emplace(kHurryTime);
    }
    try {
        const Fd former = takeover_.TakeOverAgain();
        if (former.valid()) {
            relay_.SetListener(takeover_.Listener().get());
            hurry_.reset();
            PrintError("the daemon has been started again; the tap is in place again");
        }
        return true;
    } catch (const ExitError& error) {
        PrintError(error.what());
        return false;
    }
}

int Tap::StepTimeoutMs() const
{
    return output_.TimeoutMs(hurry_.has_value() && !hurry_->Passed() ? kSoonMs : kTickMs);
}

void Tap::Serve()
{
    PrintError("the tap is in place; workers that connect from now on are shown");
    Deadline check(kTick);
    for (bool stop = false; !stop;) {
        const bool woken = relay_.Step(StepTimeoutMs());
        stop = output_.IsFull();
        // Not for every message: each check costs system calls.
        if (woken || check.Passed()) {
            stop = stop || ShouldStop();
            check = Deadline(kTick);
        }
    }
}

void Tap::Linger()
{
    relay_.SetDaemonPath(kSocketPath);
    // A worker may have found our socket just before it was removed.
    const Deadline late(kGraceForLateWorkers);
    std::optional<Deadline> end;
    if (options_.linger >= 0) {
        end.emplace(Seconds(options_.linger));
    }
    bool reported = false;
    while (!late.Passed() || relay_.Open() > 0) {
        relay_.Step(late.Passed() ? kTickMs : late.RemainingMs());
        if (late.Passed() && relay_.Open() > 0 && !std::exchange(reported, true)) {
            PrintError(
                fmt::format("the daemon's socket is restored; {} open connection(s) still lead through the tap, "
                            "which stays until they end (a second signal cuts them)",
                            relay_.Open()));
        }
        if (signals_.Next() != 0 || (HasPassed(end) && late.Passed())) {
            break;
        }
    }
    if (relay_.Open() > 0) {
        PrintError(fmt::format("{} connection(s) cut", relay_.Open()));
    }
}

int Tap::Run()
{
    Serve();
    takeover_.Restore();
    Linger();
    return output_.Finish() ? exit_ : kExitFailed;
}

// Each worker needs two descriptors.
void RaiseDescriptorLimit()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

int Run(const Options& options)
{
    RaiseDescriptorLimit();
    Tap tap(options);
    return tap.Run();
}

}  // namespace

Subcommand AddTap(CLI::App& program)
{
    CLI::App* app = program.add_subcommand(
        "tap",
        "Show the messages of all workers that connect from now on\n\n"
        "The tap replaces the daemon's socket by its own and forwards everything. It restores the socket on SIGINT, "
        "SIGTERM and SIGHUP, at its limits and on errors, and then stays until the connections through it have ended");
    auto options = std::make_shared<Options>();
    AddRecordOptions(*app, options->records);
    AddSeconds(*app, "--linger", options->linger,
               "After stopping, cut connections that are still open after this time (default: wait for their end)");
    AddFilterOptions(*app, options->records.filter);
    app->add_flag(
        "--follow", options->follow,
        "Stay when the daemon is started again, and take its new socket's place (default: end with status 1)");
    AddStandardOptions(*app,
                       "  $ gakppctl tap\n"
                       "  $ gakppctl tap --json --for 10 | jq .message.type\n"
                       "  $ gakppctl tap --write trace.pcap --count 100\n"
                       "  $ gakppctl tap --follow --device 1,2 --message ABNORMAL --message SHUTDOWN",
                       {kExitNoDaemon}, OnSignal::kDone);
    return {app, [options] {
                options->records.style.coloured = OutputIsColoured();
                return Run(*options);
            }};
}

}  // namespace tools
