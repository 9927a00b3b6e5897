// gakppctl list: who is connected to whatever daemon listens, asked of the kernel (common/connections.h), and what
// the workers claim, asked of the daemon if it is a gakppcd.

#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <memory>
#include <optional>
#include <utility>

#include "common/deadline.h"
#include "common/ppc_socket.h"
#include "common/signals.h"
#include "common/terminal.h"
#include "control_client.h"
#include "list/list_printer.h"
#include "subcommands.h"

namespace tools {
namespace {

constexpr double kShortestInterval = 0.1;
// A pipe or terminal that is ready to be written takes this much without blocking.
constexpr size_t kPieceSize = 4096;

struct Options {
    std::string control;
    bool json = false;
    double watch = -1;
    double duration = -1;
};

Listing Look(const Options& options)
{
    Listing listing;
    listing.time = std::chrono::system_clock::now();
    listing.found = FindServerSockets();
    listing.claims = AskForClaims(listing.found, options.control);
    return listing;
}

std::string Joined(const std::vector<std::string>& lines)
{
    std::string text;
    for (const std::string& line : lines) {
        text += line + "\n";
    }
    return text;
}

[[noreturn]] void ThrowNoServer()
{
    switch (IsHeld(kSocketPath)) {
        case Held::kYes:
            throw ExitError(kExitFailed, fmt::format("who listens at {} is in another network namespace, "
                                                     "into which only root may look",
                                                     kSocketPath));
        case Held::kUnknown:
            throw ExitError(kExitFailed,
                            fmt::format("whether a daemon listens at {} is unknown: Permission denied", kSocketPath));
        default:
            throw ExitError(kExitNoDaemon, fmt::format("no daemon listens at {}", kSocketPath));
    }
}

int ListOnce(const Options& options)
{
    const Listing listing = Look(options);
    if (listing.found.servers.empty()) {
        ThrowNoServer();
    }
    if (options.json) {
        Print(JsonLines(listing));
        return kExitOk;
    }
    Print(Joined(TextLines(listing, kAnyWidth, OutputIsColoured())));
    return kExitOk;
}

// Shows the connections again and again, until a signal or the end of --for comes.
class Watch {
public:
    explicit Watch(const Options& options) : options_(options), inPlace_(!options.json && OutputIsTerminal())
    {
        if (options.duration >= 0) {
            end_.emplace(Seconds(options.duration));
        }
    }

    int Run()
    {
        do {
            next_ = Deadline(Seconds(options_.watch));
            Write(Show(Look(options_)));
        } while (Wait());
        return kExitOk;
    }

private:
    std::string Show(const Listing& listing);
    std::string Screen(std::vector<std::string> lines) const;
    void Write(const std::string& text);
    bool Wait();

    const Options& options_;
    const bool inPlace_;
    SignalFd signals_{SIGINT, SIGTERM, SIGHUP};
    std::optional<Deadline> end_;
    Deadline next_{Clock::duration::zero()};
    ScreenSize size_;
    bool isResized_ = false;
};

std::string Watch::Show(const Listing& listing)
{
    if (options_.json) {
        return JsonLines(listing);
    }
    const ScreenSize former = std::exchange(size_, TerminalSize());
    isResized_ = former.rows != size_.rows || former.columns != size_.columns;
    std::vector<std::string> lines = TextLines(listing, inPlace_ ? size_.columns : kAnyWidth, OutputIsColoured());
    lines.insert(lines.begin(), UtcTime(listing.time).substr(0, 19) + "Z");
    return inPlace_ ? Screen(std::move(lines)) : Joined(lines) + "\n";
}

// All rows but the last one, in which the cursor stays.
std::string Watch::Screen(std::vector<std::string> lines) const
{
    const size_t height = std::max<size_t>(size_.rows, 2) - 1;
    if (lines.size() > height) {
        const size_t left = lines.size() - height + 1;
        lines.resize(height);
        lines.back() = fmt::format("and {} more lines", left);
    }
    lines.resize(height);
    std::string text = (isResized_ ? kClearScreen : "") + std::string(kCursorHome);
    for (const std::string& line : lines) {
        text += line + kClearLine + "\r\n";
    }
    return text;
}

// A reader that has stopped must not keep a signal from ending us.
void Watch::Write(const std::string& text)
{
    for (size_t at = 0; at < text.size();) {
        pollfd wanted[] = {{STDOUT_FILENO, POLLOUT, 0}, {signals_.get(), POLLIN, 0}};
        if (poll(wanted, 2, -1) == -1 && errno == EINTR) {
            continue;
        }
        if (wanted[0].revents == 0) {
            return;
        }
        Print(text.substr(at, kPieceSize));
        at += kPieceSize;
    }
}

// Whether it is time for the next look, and not for the end. Both have passed when a look took long.
bool Watch::Wait()
{
    const Deadline& deadline = end_.has_value() && *end_ < next_ ? *end_ : next_;
    pollfd wanted{signals_.get(), POLLIN, 0};
    while (!deadline.Passed()) {
        if (poll(&wanted, 1, deadline.RemainingMs()) > 0) {
            return false;
        }
    }
    return !HasPassed(end_) && signals_.Next() == 0;
}

int Run(const Options& options)
{
    return options.watch >= 0 ? Watch(options).Run() : ListOnce(options);
}

}  // namespace

Subcommand AddList(CLI::App& program)
{
    CLI::App* app = program.add_subcommand(
        "list",
        "Show who is connected to the daemon, and how many bytes wait to be read\n\n"
        "The kernel is asked, so the daemon may be any program that uses the library. PID, PROGRAM and AGE are "
        "of the process that holds the worker's end of a connection (the oldest one, if there are several), USER is "
        "who made that end. TO DAEMON and TO WORKER count the bytes that were sent and not read yet. DEVICE, TYPE and "
        "CLAIMS (a process id) are what the worker says of itself; only a gakppcd that answers at its control socket "
        "within a second can tell. What cannot be seen is called unknown: the processes of other users, unless root "
        "looks. Nothing is changed.");
    auto options = std::make_shared<Options>();
    app->add_flag("--json", options->json, "Print one JSON object per line");
    AddControlOption(*app, options->control);
    auto* watch = AddSeconds(*app, "--watch", options->watch,
                             "Look again and again, at these intervals: on a terminal in place, else one list after "
                             "the other");
    watch->check(CLI::Range(kShortestInterval, kLongestSeconds).description(""));
    AddSeconds(*app, "--for", options->duration, "End --watch after this time")->needs(watch);
    AddStandardOptions(*app,
                       "  $ gakppctl list\n"
                       "  $ gakppctl list --watch 2\n"
                       "  $ gakppctl list --json | jq 'select(.kind == \"connection\" and .to_worker > 0).pid'",
                       {kExitNoDaemon}, OnSignal::kDoneIfWatch);
    return {app, [options] { return Run(*options); }};
}

}  // namespace tools
