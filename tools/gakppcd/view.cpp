#include "view.h"

#include <fmt/color.h>
#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <vector>

#include "common/exit_error.h"
#include "common/message.h"
#include "common/output.h"

namespace tools {
namespace {

constexpr size_t kEventsShown = 5;
constexpr char kClearScreen[] = "\033[2J";
constexpr char kSaveCursorAndHome[] = "\0337\033[H";
constexpr char kClearLineRest[] = "\033[K\r\n";
constexpr char kRestoreCursor[] = "\0338";

struct ScreenSize {
    size_t rows = 24;
    size_t columns = 80;
};

ScreenSize TerminalSize()
{
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == -1 || size.ws_row < 4 || size.ws_col < 20) {
        return {};
    }
    return {size.ws_row, size.ws_col};
}

fmt::text_style StyleOf(WorkerState state)
{
    switch (state) {
        case WorkerState::kStarted:
        case WorkerState::kRunning:
            return fg(fmt::terminal_color::green);
        case WorkerState::kAbnormal:
        case WorkerState::kLost:
        case WorkerState::kDied:
            return fg(fmt::terminal_color::red);
        default:
            return fg(fmt::terminal_color::yellow);
    }
}

std::string Age(const Worker& worker)
{
    const auto age = worker.HeartbeatAge();
    return age.has_value() ? fmt::format("{:.1f} s", *age) : "-";
}

std::string Row(const Worker& worker, bool coloured)
{
    const std::string state = fmt::format("{:<9}", Name(worker.state));
    return fmt::format("{:>6}  {:<14}  {:>8}  {}  {:>10}  {:>9}", worker.device, ProcessName(worker.type), worker.pid,
                       coloured ? fmt::format(StyleOf(worker.state), "{}", state) : state, worker.heartbeats,
                       Age(worker));
}

}  // namespace

View::~View()
{
    if (drawn_) {
        Refresh();
        WriteOut("\r\n");
    }
}

void View::Event(const std::string& event, const Worker* worker, const std::string& detail)
{
    switch (mode_) {
        case Mode::kTable:
            Remember(Line(event, worker, detail));
            break;
        case Mode::kLines:
            Print(Line(event, worker, detail) + "\n");
            break;
        case Mode::kJson:
            Print(JsonEvent(event, worker, detail));
            break;
    }
}

void View::Note(const std::string& text)
{
    if (mode_ == Mode::kTable) {
        Remember(Printable(text));
    } else {
        PrintError(text);
    }
}

void View::Refresh()
{
    if (mode_ != Mode::kTable) {
        return;
    }
    if (!std::exchange(drawn_, true)) {
        Print(kClearScreen + fmt::format("\033[{};1H", TerminalSize().rows));
    }
    Print(kSaveCursorAndHome + Table() + kRestoreCursor);
}

std::string View::Line(const std::string& event, const Worker* worker, const std::string& detail) const
{
    std::string text = UtcTime(std::chrono::system_clock::now());
    if (worker != nullptr) {
        text += fmt::format(" device {} {} pid {} {} heartbeats {} age {}", worker->device, ProcessName(worker->type),
                            worker->pid, Name(worker->state), worker->heartbeats, Age(*worker));
    }
    return Printable(text + " " + event + (detail.empty() ? "" : " (" + detail + ")"));
}

std::string View::JsonEvent(const std::string& event, const Worker* worker, const std::string& detail) const
{
    Json line;
    line["time"] = UtcTime(std::chrono::system_clock::now());
    line["event"] = event;
    if (worker != nullptr) {
        const auto age = worker->HeartbeatAge();
        line["device"] = worker->device;
        line["process_type"] = ProcessName(worker->type);
        line["pid"] = worker->pid;
        line["state"] = Name(worker->state);
        line["heartbeats"] = worker->heartbeats;
        line["heartbeat_age"] = age.has_value() ? Json(*age) : Json();
    }
    if (!detail.empty()) {
        line["detail"] = detail;
    }
    return JsonLine(line);
}

// The bottom row stays free: commands are typed there.
std::string View::Table() const
{
    const ScreenSize size = TerminalSize();
    std::vector<std::string> lines{
        fmt::format("gakppcd, process {}; commands: shutdown DEVICE PID, shutdown all, start-custom DEVICE PID, quit",
                    getpid())
            .substr(0, size.columns - 1),
        fmt::format("{:>6}  {:<14}  {:>8}  {:<9}  {:>10}  {:>9}", "DEVICE", "PROCESS TYPE", "PID", "STATE",
                    "HEARTBEATS", "LAST")};
    const size_t events = std::min(last_.size(), kEventsShown);
    const bool coloured = OutputIsColoured();
    for (const auto& [key, worker] : workers_.All()) {
        if (lines.size() + events + 2 < size.rows) {
            lines.push_back(Row(worker, coloured));
        }
    }
    lines.emplace_back();
    for (const std::string& event : last_) {
        lines.push_back(event.substr(0, size.columns - 1));
    }
    lines.resize(size.rows - 1);
    std::string text;
    for (const std::string& line : lines) {
        text += line + kClearLineRest;
    }
    return text;
}

void View::Remember(const std::string& text)
{
    last_.push_back(text.substr(0, text.find('\n')));
    if (last_.size() > kEventsShown) {
        last_.pop_front();
    }
}

}  // namespace tools
