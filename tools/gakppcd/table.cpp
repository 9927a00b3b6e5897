#include "table.h"

#include <fmt/color.h>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gakppc/qel_message.pb.h>

#include <algorithm>
#include <map>

#include "common/message.h"
#include "common/terminal.h"

namespace tools {
namespace {

constexpr size_t kWideColumns = 66;
constexpr char kWideRow[] = "{:>6}  {:<14}  {:>8}  {:<9}  {:>10}  {:>9}";
constexpr char kNarrowRow[] = "{:>3} {:<7} {:>7} {:<8} {:>6}";

bool IsWide(size_t width)
{
    return width >= kWideColumns;
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

std::string ShortAge(const Worker& worker)
{
    const auto seconds = worker.HeartbeatAge();
    return seconds.has_value() ? ShortDuration(*seconds) : "-";
}

std::string TypeText(int type, size_t width)
{
    return type == qel::PPCMessage::CUSTOM_COMPUTE && !IsWide(width) ? "CUSTOM" : ProcessName(type);
}

std::string Header(size_t width)
{
    return Cut(IsWide(width) ? fmt::format(kWideRow, "DEVICE", "PROCESS TYPE", "PID", "STATE", "HEARTBEATS", "LAST")
                             : fmt::format(kNarrowRow, "DEV", "TYPE", "PID", "STATE", "LAST"),
               width);
}

std::string Row(const Worker& worker, size_t width, bool coloured)
{
    const std::string type = TypeText(worker.type, width);
    const std::string state = Name(worker.state);
    std::string row =
        Cut(IsWide(width)
                ? fmt::format(kWideRow, worker.device, type, worker.pid, state, worker.heartbeats, ShortAge(worker))
                : fmt::format(kNarrowRow, worker.device, type, worker.pid, state, ShortAge(worker)),
            width);
    const size_t at = row.find(" " + state + " ");
    if (coloured && at != std::string::npos) {
        row.replace(at + 1, state.size(), fmt::format(StyleOf(worker.state), "{}", state));
    }
    return row;
}

using Workers = std::vector<const Worker*>;

// "and 29 more; 3 ended: 2 STOPPED, 1 DIED".
std::string Summary(size_t leftOut, const Workers& ended)
{
    std::vector<std::string> parts;
    if (leftOut > 0) {
        parts.push_back(fmt::format("and {} more", leftOut));
    }
    std::map<WorkerState, size_t> states;
    for (const Worker* worker : ended) {
        ++states[worker->state];
    }
    std::vector<std::string> counts;
    counts.reserve(states.size());
    for (const auto& [state, count] : states) {
        counts.push_back(fmt::format("{} {}", count, Name(state)));
    }
    if (!ended.empty()) {
        parts.push_back(fmt::format("{} ended: {}", ended.size(), fmt::join(counts, ", ")));
    }
    return fmt::format("{}", fmt::join(parts, "; "));
}

}  // namespace

std::vector<std::string> TableLines(const WorkerTable::Map& workers, size_t height, size_t width, bool coloured)
{
    if (height == 0) {
        return {};
    }
    Workers running, ended;
    for (const auto& [key, worker] : workers) {
        (worker.HasEnded() ? ended : running).push_back(&worker);
    }
    const size_t room = height - 1;
    const bool allFit = workers.size() <= room;
    Workers shown(running.begin(), running.begin() + static_cast<ptrdiff_t>(std::min(
                                                         running.size(), allFit || room == 0 ? room : room - 1)));
    if (allFit) {
        shown.insert(shown.end(), ended.begin(), ended.end());
    }
    std::vector<std::string> lines{Header(width)};
    for (const Worker* worker : shown) {
        lines.push_back(Row(*worker, width, coloured));
    }
    if (!allFit && room > 0) {
        lines.push_back(Cut(Summary(running.size() - shown.size(), ended), width));
    }
    return lines;
}

}  // namespace tools
