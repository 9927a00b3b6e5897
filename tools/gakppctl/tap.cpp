// gakppctl tap: shows every message between the workers that connect from now on and the daemon.
//
// It replaces the daemon's socket by its own (socket_takeover.h), forwards everything (relay.h) and prints it on
// another thread (record_printer.h). When it is told to stop it restores the daemon's socket at once. Connections
// through the tap are forwarded until they end, because cutting them would end their workers.

#include <fmt/format.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <optional>
#include <utility>

#include "common/signals.h"
#include "record_filter.h"
#include "record_printer.h"
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
constexpr std::chrono::seconds kPrintTime{5};

struct Options {
    RecordStyle style;
    RecordFilter filter;
    std::string capture;
    double duration = -1;
    uint64_t count = 0;
    double linger = -1;
    bool follow = false;
};

class Tap {
public:
    explicit Tap(const Options& options);
    int Run();

private:
    void OnRecord(Record&& record);
    void Serve();
    void Linger();
    bool ShouldStop();
    bool StaysDisplaced();
    int StepTimeoutMs() const;
    int Finish();

    const Options& options_;
    SignalFd signals_{SIGINT, SIGTERM, SIGHUP};
    Fd outputFailed_{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
    Fd directoryChanged_;
    RecordPrinter printer_;
    SocketTakeover takeover_;
    Relay relay_;
    std::optional<Deadline> end_;
    std::optional<Deadline> hurry_;  // set while another socket is in our place
    uint64_t messages_ = 0;
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

std::unique_ptr<CaptureWriter> OpenCapture(const std::string& path)
{
    return path.empty() ? nullptr : std::make_unique<CaptureWriter>(path);
}

Tap::Tap(const Options& options)
    : options_(options),
      printer_(options.style, OpenCapture(options.capture), [this] { eventfd_write(outputFailed_.get(), 1); }),
      relay_(takeover_.Listener().get(), kSavedSocketPath, [this](Record&& record) { OnRecord(std::move(record)); })
{
    relay_.WakeOn(signals_.get());
    relay_.WakeOn(outputFailed_.get());
    if (options.follow) {
        directoryChanged_ = WatchSocketDirectory();
    }
    if (directoryChanged_.valid()) {
        relay_.WakeOn(directoryChanged_.get());
    }
    if (options.duration >= 0) {
        end_.emplace(Seconds(options.duration));
    }
}

bool CountsAsMessage(const Record& record)
{
    return record.kind == RecordKind::kFrame || record.kind == RecordKind::kFragment;
}

void Tap::OnRecord(Record&& record)
{
    if ((options_.count > 0 && messages_ >= options_.count) || !options_.filter.Accepts(record)) {
        return;
    }
    messages_ += CountsAsMessage(record) ? 1 : 0;
    printer_.Push(std::move(record));
}

bool Tap::ShouldStop()
{
    eventfd_t failed = 0;
    if (eventfd_read(outputFailed_.get(), &failed) == 0) {
        exit_ = kExitFailed;
        return true;
    }
    if (signals_.Next() != 0 || HasPassed(end_)) {
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
    const int timeout = hurry_.has_value() && !hurry_->Passed() ? kSoonMs : kTickMs;
    return end_.has_value() ? std::min(timeout, end_->RemainingMs()) : timeout;
}

void Tap::Serve()
{
    PrintError("the tap is in place; workers that connect from now on are shown");
    Deadline check(kTick);
    for (bool stop = false; !stop;) {
        const bool woken = relay_.Step(StepTimeoutMs());
        stop = options_.count > 0 && messages_ >= options_.count;
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

int Tap::Finish()
{
    const bool shown = printer_.Finish(Deadline(kPrintTime));
    if (printer_.Dropped() > 0) {
        PrintError(fmt::format("{} message(s) were forwarded but not shown: the output is read too slowly",
                               printer_.Dropped()));
        exit_ = kExitFailed;
    }
    if (!shown) {
        PrintError("the output is not read; the rest is not shown");
        fflush(stderr);
        _exit(kExitFailed);  // the printing thread cannot be joined
    }
    return exit_;
}

int Tap::Run()
{
    Serve();
    takeover_.Restore();
    Linger();
    return Finish();
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
    app->add_flag("--json", options->style.json, "Print one JSON object per line");
    app->add_flag("--hex", options->style.hex, "Print the bytes as well");
    app->add_option("--write", options->capture, "Write a capture of what is shown, for replay and decode")
        ->type_name("FILE");
    AddCount(*app, "--count", options->count, "Stop after so many messages have been shown");
    AddSeconds(*app, "--for", options->duration, "Stop after this time");
    AddSeconds(*app, "--linger", options->linger,
               "After stopping, cut connections that are still open after this time (default: wait for their end)");
    AddFilterOptions(*app, options->filter);
    app->add_flag(
        "--follow", options->follow,
        "Stay when the daemon is started again, and take its new socket's place (default: end with status 1)");
    AddStandardOptions(*app,
                       "  $ gakppctl tap\n"
                       "  $ gakppctl tap --json --for 10 | jq .message.type\n"
                       "  $ gakppctl tap --write trace.cap --count 100\n"
                       "  $ gakppctl tap --follow --device 1,2 --message ABNORMAL --message SHUTDOWN",
                       {kExitNoDaemon}, OnSignal::kDone);
    return {app, [options] {
                options->style.coloured = OutputIsColoured();
                return Run(*options);
            }};
}

}  // namespace tools
