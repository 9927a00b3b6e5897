// gakppctl watch: shows the messages of a process that runs, also on connections that are older than this program.
//
// bpftrace (watch/tracer.h) attaches to the tracepoints of the library that the process has loaded. What it reports
// (watch/trace_parser.h) becomes records (watch/trace_recorder.h), which are shown as the tap's are. The process is not
// stopped, and its socket is not touched.

#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <optional>
#include <sstream>
#include <utility>

#include "common/signals.h"
#include "record_output.h"
#include "subcommands.h"
#include "watch/trace_parser.h"
#include "watch/trace_recorder.h"
#include "watch/tracer.h"
#include "watch/watched_process.h"

namespace tools {
namespace {

constexpr int kTickMs = 200;
constexpr std::chrono::seconds kLossReportTime{1};
constexpr std::chrono::milliseconds kReadTime{300};
constexpr std::chrono::seconds kRequestTime{1};
constexpr std::chrono::seconds kLongestRequestTime{32};

struct Options {
    RecordOptions records;
    pid_t pid = 0;
};

// Adds what can be read to `text`. False at the end.
bool ReadSome(int from, std::string& text)
{
    char buffer[65536];
    const ssize_t count = read(from, buffer, sizeof(buffer));
    if (count > 0) {
        text.append(buffer, static_cast<size_t>(count));
    }
    return count > 0 || (count == -1 && errno == EINTR);
}

class Watch {
public:
    Watch(const Options& options, const WatchedProcess& process);
    int Run();

private:
    void OnEvent(TraceEvent&& event);
    bool Step(int timeoutMs);
    bool ShouldStop();
    bool IsGone() const;
    void WaitForTracer(std::chrono::milliseconds time);
    void End();
    void ReportProblems();
    void ReportLost();
    void ReportMissing();

    const WatchedProcess& process_;
    SignalFd signals_{SIGINT, SIGTERM, SIGHUP};
    RecordOutput output_;
    TraceRecorder recorder_;
    TraceParser parser_;
    Tracer tracer_;
    std::string complaints_;
    bool attached_ = false;
    bool tracerRuns_ = true;
    bool interrupted_ = false;         // while it ends
    uint64_t lost_ = 0;                // reports
    std::optional<uint64_t> missing_;  // messages, and begins and ends of connections; unknown before the end
    uint64_t lostReported_ = 0;
    Deadline nextLossReport_{Clock::duration::zero()};
    int exit_ = kExitOk;
};

Watched Describe(const WatchedProcess& process)
{
    return {process.self(), process.IsDaemon(), process.SharesPids(),
            [&process](int descriptor) { return process.EndOf(descriptor); }};
}

Watch::Watch(const Options& options, const WatchedProcess& process)
    : process_(process),
      output_(options.records),
      recorder_(Describe(process), [this](Record&& record) { output_.Push(std::move(record)); }),
      parser_([this](TraceEvent&& event) { OnEvent(std::move(event)); }),
      tracer_(process, signals_.FormerMask())
{
}

void Watch::OnEvent(TraceEvent&& event)
{
    switch (event.kind) {
        case TraceEvent::Kind::kAttached:
            attached_ = true;
            output_.StartTime();
            PrintError(fmt::format("watching process {} ({}); its messages from now on are shown", process_.pid(),
                                   process_.name()));
            break;
        case TraceEvent::Kind::kLost:
            lost_ += event.lost;
            break;
        case TraceEvent::Kind::kTotal:
            missing_ = event.lost;
            break;
        default:
            recorder_.Push(std::move(event));
    }
}

// Waits for something and handles it. False when the tracer has ended.
bool Watch::Step(int timeoutMs)
{
    pollfd sources[] = {{signals_.get(), POLLIN, 0},
                        {output_.FailedFd(), POLLIN, 0},
                        {process_.EndFd(), POLLIN, 0},
                        {tracer_.Reports(), POLLIN, 0},
                        {tracer_.Complaints(), POLLIN, 0}};
    if (poll(sources, std::size(sources), recorder_.TimeoutMs(output_.TimeoutMs(timeoutMs))) > 0) {
        std::string reports;
        if (sources[3].revents != 0) {
            tracerRuns_ = ReadSome(tracer_.Reports(), reports);
            parser_.Feed(reports.data(), reports.size());
        }
        if (sources[4].revents != 0 && !ReadSome(tracer_.Complaints(), complaints_)) {
            tracerRuns_ = false;
        }
    }
    recorder_.PassOn();
    return tracerRuns_;
}

bool Watch::IsGone() const
{
    if (process_.HasEnded()) {
        PrintError(fmt::format("process {} has ended", process_.pid()));
        return true;
    }
    if (process_.HasReplacedItself()) {
        PrintError(
            fmt::format("process {} has executed another program: there is nothing left to watch", process_.pid()));
        return true;
    }
    return false;
}

bool Watch::ShouldStop()
{
    if (output_.HasFailed()) {
        exit_ = kExitFailed;
        return true;
    }
    if (signals_.Next() != 0 || output_.IsTimeOver() || output_.IsFull() || IsGone()) {
        return true;
    }
    if (!tracerRuns_) {
        ReportProblems();
        exit_ = kExitFailed;
    }
    return !tracerRuns_;
}

// Not each time: more than can be read comes in bursts.
void Watch::ReportLost()
{
    if (lost_ > lostReported_ && nextLossReport_.Passed()) {
        PrintError(fmt::format("{} report(s) were lost: more came than could be read", lost_ - lostReported_));
        lostReported_ = lost_;
        nextLossReport_ = Deadline(kLossReportTime);
    }
}

// What the tracer says of itself, less what means nothing here.
void Watch::ReportProblems()
{
    PrintError(attached_ ? "bpftrace has ended" : "bpftrace could not attach");
    std::istringstream lines(complaints_);
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty() && line.find("RLIMIT_MEMLOCK") == std::string::npos) {
            PrintError("bpftrace: " + line);
        }
    }
}

// Until the tracer has ended, the time has passed, or a signal comes.
void Watch::WaitForTracer(std::chrono::milliseconds time)
{
    const Deadline deadline(time);
    while (tracerRuns_ && !interrupted_ && !deadline.Passed()) {
        Step(std::min(kTickMs, deadline.RemainingMs()));
        interrupted_ = signals_.Next() != 0;
    }
}

// What has happened so far is still shown; a second signal ends that. bpftrace ends by itself after its process. It
// misses a signal that comes while it does not wait, and gives up reading when another one interrupts it in that: so it
// is asked again, and each time later. The kernel removes its probes, one by one, when all programs let it: a minute is
// not too long on a busy machine.
void Watch::End()
{
    if (attached_ && !output_.IsFull()) {
        WaitForTracer(kReadTime);
        for (auto time = kRequestTime; tracerRuns_ && !interrupted_ && time <= kLongestRequestTime; time *= 2) {
            tracer_.RequestEnd();
            WaitForTracer(time);
        }
        if (tracerRuns_) {
            PrintError("bpftrace has not reported all in time: the last messages may be missing");
            exit_ = kExitFailed;
        }
    }
    parser_.Finish();
    recorder_.PassOnAll();
}

// Without a loss before, what is missing has passed after bpftrace was asked to end.
void Watch::ReportMissing()
{
    const uint64_t missing = missing_.value_or(0);
    if (lost_ > 0) {
        PrintError(missing > 0 ? fmt::format("at least {} message(s) or ends of connections are missing", missing)
                               : "messages are cut or missing: more came than bpftrace could read");
        exit_ = kExitFailed;
    } else if (missing > 0) {
        PrintError(fmt::format("{} message(s) or ends of connections at the very end are not shown", missing));
    }
}

int Watch::Run()
{
    while (!ShouldStop()) {
        Step(kTickMs);
        ReportLost();
    }
    End();
    if (parser_.Rejected() > 0) {
        PrintError(fmt::format("{} line(s) of bpftrace were not understood", parser_.Rejected()));
        exit_ = kExitFailed;
    }
    ReportMissing();
    return output_.Finish() ? exit_ : kExitFailed;
}

int Run(const Options& options)
{
    const WatchedProcess process(options.pid != 0 ? options.pid : FindDaemon());
    Watch watch(options, process);
    return watch.Run();
}

}  // namespace

Subcommand AddWatch(CLI::App& program)
{
    CLI::App* app =
        program.add_subcommand("watch",
                               "Show the messages of a daemon or worker that runs, also on old connections\n\n"
                               "bpftrace attaches to the tracepoints of the libgakppc that the process has loaded. The "
                               "process is not restarted, "
                               "its socket is not touched, and nothing is left behind. Needs root, bpftrace and "
                               "tracefs. Messages of more than "
                               "1000 bytes are cut");
    auto options = std::make_shared<Options>();
    AddCount(*app, "--pid", options->pid, "Watch this process (default: the daemon that listens)", pid_t{INT32_MAX})
        ->type_name("PID");
    AddRecordOptions(*app, options->records);
    AddFilterOptions(*app, options->records.filter, "--worker");
    AddStandardOptions(*app,
                       "  $ gakppctl watch\n"
                       "  $ gakppctl watch --json --for 10 | jq .message.type\n"
                       "  $ gakppctl watch --pid 4711 --hex\n"
                       "  $ gakppctl watch --worker 4712 --message ABNORMAL --message SHUTDOWN",
                       {kExitNoDaemon}, OnSignal::kDone);
    return {app, [options] {
                options->records.style.coloured = OutputIsColoured();
                return Run(*options);
            }};
}

}  // namespace tools
