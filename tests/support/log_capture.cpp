#include "log_capture.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <map>
#include <mutex>
#include <ostream>
#include <string_view>
#include <system_error>

#include "vlog.h"

namespace gaktest {
namespace {

constexpr int kDebugLevel = 0;
constexpr int kInfoLevel = 1;
constexpr int kWarnLevel = 2;
constexpr int kErrorLevel = 3;
constexpr int kEventLevel = 5;

// Outlives every capture: threads may be inside a sink when one ends.
struct State {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<LogLine> lines;
    int minimumLevel = kDebugLevel;
    int platformLevel = kDebugLevel;
    std::map<int, size_t> checkCalls;
    size_t getLevelCalls = 0;
    size_t initCalls = 0;
};

State& TheState()
{
    static State* const state = new State;
    return *state;
}

// A logging library that changes errno would hide what the caller reports next.
class ErrnoKeeper {
public:
    ErrnoKeeper() : saved_(errno) {}
    ~ErrnoKeeper() { errno = saved_; }
    ErrnoKeeper(const ErrnoKeeper&) = delete;
    ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;

private:
    int saved_;
};

std::string Format(const char* fmt, va_list args) __attribute__((format(printf, 1, 0)));

std::string Format(const char* fmt, va_list args)
{
    va_list again;
    va_copy(again, args);
    const int length = vsnprintf(nullptr, 0, fmt, args);
    std::string text(length > 0 ? static_cast<size_t>(length) : 0, '\0');
    vsnprintf(text.data(), text.size() + 1, fmt, again);
    va_end(again);
    return text;
}

std::string ThreadName()
{
    char name[16] = "";
    pthread_getname_np(pthread_self(), name, sizeof(name));
    return name;
}

void Store(LogSink sink, int moduleId, int level, const KeyValue* pairs, int pairCount, const char* fmt, va_list args)
    __attribute__((format(printf, 6, 0)));

void Store(LogSink sink, int moduleId, int level, const KeyValue* pairs, int pairCount, const char* fmt, va_list args)
{
    const ErrnoKeeper keeper;
    LogLine line{sink,        moduleId, level, fmt, Format(fmt, args), {}, static_cast<int>(syscall(SYS_gettid)),
                 ThreadName()};
    for (int i = 0; i < pairCount; ++i) {
        const char* value = pairs[i].value;
        line.pairs.emplace_back(pairs[i].kname, value != nullptr ? value : "(null)");
    }
    State& state = TheState();
    std::lock_guard<std::mutex> lock(state.mutex);
    state.lines.push_back(std::move(line));
    state.changed.notify_all();
}

template <LogSink sink, int level>
void Keep(int moduleId, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    Store(sink, moduleId, level, nullptr, 0, fmt, args);
    va_end(args);
}

void KeepInner(int moduleId, int level, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    Store(LogSink::kInner, moduleId, level, nullptr, 0, fmt, args);
    va_end(args);
}

void KeepWithKv(int moduleId, int level, KeyValue* pairs, int pairCount, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    Store(LogSink::kWithKv, moduleId, level, pairs, pairCount, fmt, args);
    va_end(args);
}

int AnswerCheckLogLevel(int /*moduleId*/, int level)
{
    const ErrnoKeeper keeper;
    State& state = TheState();
    std::lock_guard<std::mutex> lock(state.mutex);
    ++state.checkCalls[level];
    return level >= state.minimumLevel ? 1 : 0;
}

int AnswerGetLevel(int /*moduleId*/, int* enableEvent)
{
    const ErrnoKeeper keeper;
    State& state = TheState();
    std::lock_guard<std::mutex> lock(state.mutex);
    ++state.getLevelCalls;
    *enableEvent = 1;
    return state.platformLevel;
}

int AnswerInit()
{
    const ErrnoKeeper keeper;
    State& state = TheState();
    std::lock_guard<std::mutex> lock(state.mutex);
    ++state.initCalls;
    return 0;
}

struct Replacement {
    const char* symbol;
    void* function;
};

// Every function of the logging library that libgakppc imports.
const Replacement kReplacements[] = {
    {"VlogDebugInner", reinterpret_cast<void*>(&Keep<LogSink::kDebug, kDebugLevel>)},
    {"VlogInfoInner", reinterpret_cast<void*>(&Keep<LogSink::kInfo, kInfoLevel>)},
    {"VlogWarnInner", reinterpret_cast<void*>(&Keep<LogSink::kWarn, kWarnLevel>)},
    {"VlogErrorInner", reinterpret_cast<void*>(&Keep<LogSink::kError, kErrorLevel>)},
    {"VlogEventInner", reinterpret_cast<void*>(&Keep<LogSink::kEvent, kEventLevel>)},
    {"VlogInner", reinterpret_cast<void*>(&KeepInner)},
    {"VlogWithKVInner", reinterpret_cast<void*>(&KeepWithKv)},
    {"CheckLogLevel", reinterpret_cast<void*>(&AnswerCheckLogLevel)},
    {"vlog_getlevel", reinterpret_cast<void*>(&AnswerGetLevel)},
    {"vlog_init", reinterpret_cast<void*>(&AnswerInit)},
};

bool Contains(const LogLine& line, const std::string& part)
{
    return line.text.find(part) != std::string::npos;
}

template <typename Predicate>
size_t CountLines(Predicate predicate)
{
    std::lock_guard<std::mutex> lock(TheState().mutex);
    const std::vector<LogLine>& lines = TheState().lines;
    return static_cast<size_t>(std::count_if(lines.begin(), lines.end(), predicate));
}

std::string WithoutNewlines(std::string text)
{
    while (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    return text;
}

// Reads the parts of a text from front to back. A read that fails moves nothing.
class TextReader {
public:
    explicit TextReader(std::string_view text) : rest_(text) {}

    std::string_view rest() const { return rest_; }

    bool Skip(std::string_view expected)
    {
        if (rest_.substr(0, expected.size()) != expected) {
            return false;
        }
        rest_.remove_prefix(expected.size());
        return true;
    }

    // A path or function name, up to the next of the characters that separate the parts of a place.
    std::string Name()
    {
        const size_t length = std::min(rest_.find_first_of("[]:"), rest_.size());
        std::string name(rest_.substr(0, length));
        rest_.remove_prefix(length);
        return name;
    }

    bool Number(int& number)
    {
        const auto [end, error] = std::from_chars(rest_.data(), rest_.data() + rest_.size(), number);
        if (error != std::errc()) {
            return false;
        }
        rest_.remove_prefix(static_cast<size_t>(end - rest_.data()));
        return true;
    }

private:
    std::string_view rest_;
};

// "[SINKPATH:SINKLINE]"
bool ReadSinkPlace(TextReader& reader, LogText& result)
{
    if (!reader.Skip("[")) {
        return false;
    }
    result.sinkPath = reader.Name();
    return reader.Skip(":") && reader.Number(result.sinkLine) && reader.Skip("]");
}

// "[FUNCTION:LINE] >>> "
bool ReadDriverPlace(TextReader& reader, LogText& result)
{
    if (!reader.Skip("[")) {
        return false;
    }
    result.function = reader.Name();
    return reader.Skip(":") && reader.Number(result.line) && reader.Skip("] >>> ");
}

// "[FILE:LINE:FUNCTION]TID"
bool ReadCallerPlace(TextReader& reader, LogText& result)
{
    if (!reader.Skip("[")) {
        return false;
    }
    result.file = reader.Name();
    if (!reader.Skip(":") || !reader.Number(result.line) || !reader.Skip(":")) {
        return false;
    }
    result.function = reader.Name();
    return reader.Skip("]") && reader.Number(result.threadId);
}

// The three kinds of line, each without the newlines at its end. False leaves a half-filled result.
bool ParseDriverText(std::string_view text, LogText& result)
{
    TextReader reader(text);
    if (!ReadSinkPlace(reader, result) || !ReadDriverPlace(reader, result)) {
        return false;
    }
    result.fromDriver = true;
    result.message = reader.rest();
    return true;
}

bool ParseOperationText(std::string_view text, LogText& result)
{
    TextReader reader(text);
    if (!ReadSinkPlace(reader, result) || !ReadCallerPlace(reader, result) || !reader.Skip(" ")) {
        return false;
    }
    result.message = reader.rest();
    return true;
}

bool ParseMessageText(std::string_view text, LogText& result)
{
    TextReader reader(text);
    if (!ReadSinkPlace(reader, result)) {
        return false;
    }
    const std::string_view behindSink = reader.rest();
    // A message may hold anything, so the place behind it is the last one that looks like a place.
    size_t place = std::string_view::npos;
    while ((place = behindSink.rfind(",[", place)) != std::string_view::npos) {
        TextReader tail(behindSink.substr(place + 1));
        if (ReadCallerPlace(tail, result) && (tail.rest().empty() || tail.Skip(" Msg: "))) {
            result.message = behindSink.substr(0, place);
            result.statusText = tail.rest();
            return true;
        }
        if (place-- == 0) {
            break;
        }
    }
    return false;
}

}  // namespace

LogText ParseLogText(const std::string& text)
{
    const std::string trimmed = WithoutNewlines(text);
    for (const auto parse : {&ParseDriverText, &ParseMessageText, &ParseOperationText}) {
        LogText result;
        if (parse(trimmed, result)) {
            return result;
        }
    }
    LogText result;
    TextReader reader(trimmed);
    ReadSinkPlace(reader, result);
    result.message = reader.rest();
    return result;
}

std::ostream& operator<<(std::ostream& out, LogSink sink)
{
    static const char* const names[] = {"debug", "info", "warn", "error", "event", "inner", "withkv"};
    return out << names[static_cast<size_t>(sink)];
}

std::ostream& operator<<(std::ostream& out, const LogLine& line)
{
    return out << line.sink << " module " << line.moduleId << " level " << line.level << " thread " << line.threadName
               << " \"" << WithoutNewlines(line.text) << '"';
}

LogCapture::LogCapture(const std::string& library)
{
    State& state = TheState();
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        state.lines.clear();
        state.minimumLevel = kDebugLevel;
        state.platformLevel = kDebugLevel;
        state.checkCalls.clear();
        state.getLevelCalls = 0;
        state.initCalls = 0;
    }
    for (const Replacement& replacement : kReplacements) {
        hooks_.push_back(std::make_unique<ImportHook>(replacement.symbol, replacement.function, library));
    }
}

LogCapture::~LogCapture() = default;

void LogCapture::SetMinimumLevel(int level)
{
    std::lock_guard<std::mutex> lock(TheState().mutex);
    TheState().minimumLevel = level;
}

void LogCapture::SetLibraryLevel(int level)
{
    std::lock_guard<std::mutex> lock(TheState().mutex);
    TheState().platformLevel = level;
}

size_t LogCapture::CheckLogLevelCalls() const
{
    std::lock_guard<std::mutex> lock(TheState().mutex);
    size_t calls = 0;
    for (const auto& [level, count] : TheState().checkCalls) {
        calls += count;
    }
    return calls;
}

size_t LogCapture::CheckLogLevelCalls(int level) const
{
    std::lock_guard<std::mutex> lock(TheState().mutex);
    const auto calls = TheState().checkCalls.find(level);
    return calls != TheState().checkCalls.end() ? calls->second : 0;
}

size_t LogCapture::GetLevelCalls() const
{
    std::lock_guard<std::mutex> lock(TheState().mutex);
    return TheState().getLevelCalls;
}

size_t LogCapture::InitCalls() const
{
    std::lock_guard<std::mutex> lock(TheState().mutex);
    return TheState().initCalls;
}

std::vector<LogLine> LogCapture::Lines() const
{
    std::lock_guard<std::mutex> lock(TheState().mutex);
    return TheState().lines;
}

void LogCapture::Clear()
{
    std::lock_guard<std::mutex> lock(TheState().mutex);
    TheState().lines.clear();
}

size_t LogCapture::Count(const std::string& part) const
{
    return CountLines([&part](const LogLine& line) { return Contains(line, part); });
}

size_t LogCapture::Count(LogSink sink, const std::string& part) const
{
    return CountLines([sink, &part](const LogLine& line) { return line.sink == sink && Contains(line, part); });
}

size_t LogCapture::CountMessage(LogSink sink, const std::string& message) const
{
    return CountLines([sink, &message](const LogLine& line) {
        return line.sink == sink && Contains(line, message) && line.Message() == message;
    });
}

size_t LogCapture::CountMessage(LogSink sink, const std::string& message, const std::string& statusText) const
{
    return CountLines([sink, &message, &statusText](const LogLine& line) {
        return line.sink == sink && Contains(line, message) && line.Message() == message &&
               line.StatusText() == statusText;
    });
}

bool LogCapture::WaitFor(const std::function<bool(const std::vector<LogLine>&)>& condition, Deadline deadline) const
{
    State& state = TheState();
    std::unique_lock<std::mutex> lock(state.mutex);
    return state.changed.wait_until(lock, deadline.When(), [&] { return condition(state.lines); });
}

bool LogCapture::WaitFor(const std::string& part, Deadline deadline, size_t count) const
{
    return WaitFor(
        [&part, count](const std::vector<LogLine>& lines) {
            const auto found = std::count_if(lines.begin(), lines.end(),
                                             [&part](const LogLine& line) { return Contains(line, part); });
            return static_cast<size_t>(found) >= count;
        },
        deadline);
}

}  // namespace gaktest
