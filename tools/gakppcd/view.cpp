#include "view.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <nlohmann/json.hpp>
#include <sstream>
#include <utility>

#include "commands.h"
#include "common/exit_error.h"
#include "common/message.h"
#include "common/output.h"
#include "table.h"
#include "worker_json.h"

namespace tools {
namespace {

constexpr size_t kEventsShown = 5;
constexpr size_t kRowsForEachEvent = 4;   // of the screen
constexpr size_t kRowsForBlankLine = 16;  // with fewer rows nothing separates the table from the events
constexpr size_t kLongestEvent = 1000;
constexpr char kSaveCursorAndHome[] = "\0337\033[H";
constexpr char kClearLineRest[] = "\033[K\r\n";
constexpr char kRestoreCursor[] = "\0338";

std::string UtcTimeOfDay()
{
    return UtcTime(std::chrono::system_clock::now()).substr(11, 8) + "Z";
}

std::string Age(const Worker& worker)
{
    const auto age = worker.HeartbeatAge();
    return age.has_value() ? fmt::format("{:.1f} s", *age) : "-";
}

}  // namespace

View::~View()
{
    if (drawnSize_.rows > 0) {
        Refresh();
        Write("\r\n");
    }
}

void View::Event(const std::string& event, const Worker* worker, const std::string& detail)
{
    switch (mode_) {
        case Mode::kTable:
            // The table counts heartbeats; as events they would leave no room for others.
            if (event != TypeName(qel::PPCMessage::HEARTBEAT)) {
                Remember(ShortLine(event, worker, detail));
            }
            break;
        case Mode::kLines:
            Write(Line(event, worker, detail) + "\n");
            break;
        case Mode::kJson:
            Write(JsonEvent(event, worker, detail));
            break;
    }
}

void View::Note(const std::string& text)
{
    if (mode_ == Mode::kTable) {
        Remember(UtcTimeOfDay() + " " + Printable(text));
    } else {
        PrintError(text);
    }
}

void View::Answer(const std::string& text)
{
    if (mode_ != Mode::kTable && !text.empty()) {
        PrintError(text);
    }
    answer_.clear();
    std::istringstream lines(Printable(text));
    for (std::string line; std::getline(lines, line);) {
        answer_.push_back(line);
    }
    promptIsDrawn_ = false;
}

void View::SetPrompt(const std::string& text)
{
    prompt_ = text;
    promptIsDrawn_ = false;
}

void View::Refresh()
{
    if (mode_ != Mode::kTable || outputIsGone_ || IsInBackground(STDOUT_FILENO)) {
        return;
    }
    const ScreenSize size = TerminalSize();
    if (size.rows != drawnSize_.rows || size.columns != drawnSize_.columns) {
        drawnSize_ = size;
        promptIsDrawn_ = false;
        Write(kClearScreen);
    }
    if (!std::exchange(promptIsDrawn_, true)) {
        Write(fmt::format("\033[{};1H{}{}", size.rows, Cut(prompt_, size.columns - 1), kClearLine));
    }
    std::string text;
    for (const std::string& line : Lines(size.rows - 1, size.columns - 1)) {
        text += line + kClearLineRest;
    }
    Write(kSaveCursorAndHome + text + kRestoreCursor);
}

void View::Write(const std::string& text)
{
    if (outputIsGone_ || WriteOut(text)) {
        return;
    }
    outputIsGone_ = true;
    if (mode_ != Mode::kTable && errno != EPIPE) {
        PrintError(fmt::format("standard output: {}", strerror(errno)));
    }
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
        AddWorker(line, *worker);
    }
    if (!detail.empty()) {
        line["detail"] = detail;
    }
    return JsonLine(line);
}

// Names a worker as commands do. The part that is cut when the line is too long comes last.
std::string View::ShortLine(const std::string& event, const Worker* worker, const std::string& detail)
{
    std::string text = UtcTimeOfDay() + " " + event;
    if (worker != nullptr) {
        text += fmt::format(" {} {}", worker->device, worker->pid);
    }
    return Printable(text + (detail.empty() ? "" : ": " + detail));
}

std::string View::Title(size_t width) const
{
    const auto& workers = workers_.All();
    const auto ended = std::count_if(workers.begin(), workers.end(),
                                     [](const WorkerTable::Map::value_type& entry) { return entry.second.HasEnded(); });
    return Cut(fmt::format("gakppcd {}: {} running, {} ended; type help for the commands", getpid(),
                           static_cast<ptrdiff_t>(workers.size()) - ended, ended),
               width);
}

// The answer to the last command or, when there is none, the last events.
std::vector<std::string> View::BottomLines(size_t height, size_t width) const
{
    const size_t most = std::min(answer_.empty() ? height / kRowsForEachEvent : height, height > 3 ? height - 3 : 0);
    const std::deque<std::string>& texts = answer_.empty() ? last_ : answer_;
    const size_t count = std::min(texts.size(), most);
    const auto first = answer_.empty() ? texts.end() - static_cast<ptrdiff_t>(count) : texts.begin();
    std::vector<std::string> lines;
    std::transform(first, first + static_cast<ptrdiff_t>(count), std::back_inserter(lines),
                   [width](const std::string& text) { return Cut(text, width); });
    return lines;
}

std::vector<std::string> View::Lines(size_t height, size_t width) const
{
    if (height == 0) {
        return {};
    }
    const std::vector<std::string> bottom = BottomLines(height, width);
    const size_t blank = height >= kRowsForBlankLine ? 1 : 0;
    std::vector<std::string> lines{Title(width)};
    const auto table = TableLines(workers_.All(), height - 1 - blank - bottom.size(), width, OutputIsColoured());
    lines.insert(lines.end(), table.begin(), table.end());
    lines.resize(height - bottom.size());
    lines.insert(lines.end(), bottom.begin(), bottom.end());
    return lines;
}

void View::Remember(const std::string& text)
{
    last_.push_back(text.substr(0, std::min(text.find('\n'), kLongestEvent)));
    if (last_.size() > kEventsShown) {
        last_.pop_front();
    }
}

}  // namespace tools
