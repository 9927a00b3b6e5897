#include "log.h"

#include <cstdarg>
#include <string>

#include "memguard.h"
#include "mutex.h"
#include "no_destroy.h"
#include "osal.h"
#include "status_factory.h"
#include "status_table.h"
#include "vlog.h"

namespace qel {
namespace {

constexpr int kModuleId = 38;
constexpr char kSourcePath[] = "qel/device/../common/src/log";

// Levels as the status numbers and the sinks count them.
enum Level : uint32_t {
    kDebug = 0,
    kInfo = 1,
    kWarn = 2,
    kError = 3,
    kFatal = 4,
    kEvent = 5,
    kOperation = 6,
    kTrace = 7,
};

// Line numbers that the sinks are given for each level. They never move: log filters know them.
enum SinkLine : int {
    kWarnLine = 142,
    kErrorLine = 144,
    kDebugLine = 146,
    kEventLine = 148,
    kOperationLine = 150,
    kTraceLine = 155,
    kInfoLine = 157,
};

constexpr size_t kMessageSize = 8192;  // with the terminating zero
constexpr size_t kMessageLimit = 8191;
constexpr size_t kLineSize = 8192;

// Whether a line of `level` will be written. Asked once for each line, before anything is composed.
bool SinkIsOn(int moduleId, uint32_t level)
{
    switch (level) {
        case kDebug:
        case kWarn:
            return CheckLogLevel(moduleId, static_cast<int>(level)) == 1;
        case kError:
        case kEvent:
        case kOperation:
            return true;
        case kTrace:
            return CheckLogLevel(moduleId, kEvent) == 1;
        default:
            return CheckLogLevel(moduleId, kInfo) == 1;
    }
}

void WriteTrace(int moduleId, const char* text, const char* statusText)
{
    KeyValue status = {"status", statusText};
    VlogWithKVInner(moduleId, kEvent, &status, 1, "[%s:%d]%s", kSourcePath, kTraceLine, text);
}

void WriteToSink(int moduleId, uint32_t level, const char* text, const char* statusText)
{
    switch (level) {
        case kDebug:
            VlogDebugInner(moduleId, "[%s:%d]%s", kSourcePath, kDebugLine, text);
            break;
        case kWarn:
            VlogWarnInner(moduleId, "[%s:%d]%s", kSourcePath, kWarnLine, text);
            break;
        case kError:
            VlogErrorInner(moduleId, "[%s:%d]%s", kSourcePath, kErrorLine, text);
            break;
        case kEvent:
            VlogEventInner(moduleId, "[%s:%d]%s", kSourcePath, kEventLine, text);
            break;
        case kOperation:
            VlogInner(moduleId, kOperation, "[%s:%d]%s", kSourcePath, kOperationLine, text);
            break;
        case kTrace:
            WriteTrace(moduleId, text, statusText);
            break;
        default:
            VlogInfoInner(moduleId, "[%s:%d]%s", kSourcePath, kInfoLine, text);
            break;
    }
}

// Where a log call stands in its caller's source.
struct Place {
    const char* function;
    const char* file;
    int line;
};

bool IsComplete(const Place& place)
{
    return place.function != nullptr && place.file != nullptr;
}

// A text buffer on the stack. Only its first byte is cleared: nothing reads behind the terminating zero.
template <size_t Size>
struct TextBuffer {
    char text[Size];
    TextBuffer() { text[0] = '\0'; }
};

// One caller's message, formatted.
class Message {
public:
    // False when the message does not fit or cannot be formatted; the line is then dropped.
    bool Format(const char* fmt, va_list args) __attribute__((format(printf, 2, 0)))
    {
        return vsnprintf_s(buffer_.text, kMessageSize, kMessageLimit, fmt, args) != -1;
    }
    const char* text() const { return buffer_.text; }

private:
    TextBuffer<kMessageSize + 1> buffer_;
};

// The text of `status`; empty also when there is no memory for it, because a log call must not raise.
std::string StatusText(uint32_t status)
{
    try {
        return StatusFactory::GetErrCodeDesc(status);
    } catch (const std::bad_alloc&) {
        return {};
    }
}

void LogWithStatusText(const Place& place, uint32_t level, uint32_t status, const char* fmt, va_list args)
    __attribute__((format(printf, 4, 0)));

void LogWithStatusText(const Place& place, uint32_t level, uint32_t status, const char* fmt, va_list args)
{
    QELLog::GetInstance();
    Message message;
    if (!SinkIsOn(kModuleId, level) || !message.Format(fmt, args)) {
        return;
    }
    const std::string statusText = StatusText(status);
    TextBuffer<kLineSize + 1> line;
    if (sprintf_s(line.text, kLineSize, "%s,[%s:%d:%s]%d Msg: %s\n", message.text(), place.file, place.line,
                  place.function, osalGetTid(), statusText.c_str()) == -1) {
        return;
    }
    WriteToSink(kModuleId, level, line.text, nullptr);
}

void LogWithoutStatusText(const Place& place, uint32_t level, const char* statusText, const char* fmt, va_list args)
    __attribute__((format(printf, 4, 0)));

void LogWithoutStatusText(const Place& place, uint32_t level, const char* statusText, const char* fmt, va_list args)
{
    QELLog::GetInstance();
    Message message;
    if (!SinkIsOn(kModuleId, level) || !message.Format(fmt, args)) {
        return;
    }
    TextBuffer<kLineSize + 1> line;
    const int length = level == kOperation ? sprintf_s(line.text, kLineSize, "[%s:%d:%s]%d %s\n", place.file,
                                                       place.line, place.function, osalGetTid(), message.text())
                                           : sprintf_s(line.text, kLineSize, "%s,[%s:%d:%s]%d\n", message.text(),
                                                       place.file, place.line, place.function, osalGetTid());
    if (length == -1) {
        return;
    }
    WriteToSink(kModuleId, level, line.text, statusText);
}

}  // namespace

std::atomic<bool> QELLog::isInitFlag{false};
Mutex QELLog::mutexHandle;

QELLog& QELLog::GetInstance()
{
    static NoDestroy<QELLog> instance;
    if (!isInitFlag) {
        MutexLock lock(mutexHandle);
        instance->Init();
    }
    return *instance;
}

void QELLog::Init()
{
    if (isInitFlag) {
        return;
    }
    vlog_init();
    currentLevel_ = QELGetCurLogLevel();
    isInitFlag = true;
}

uint32_t QELLog::QELGetCurLogLevel()
{
    int enableEvent = 0;
    const int level = vlog_getlevel(kModuleId, &enableEvent);
    return level >= static_cast<int>(kDebug) && level <= static_cast<int>(kError) ? static_cast<uint32_t>(level)
                                                                                  : kInfo;
}

int QELLog::QELRefreshLevel()
{
    const uint32_t level = QELGetCurLogLevel();
    currentLevel_ = level;
    return static_cast<int>(level);
}

bool QELLog::QELLogOutputEnable(uint32_t status)
{
    const uint32_t level = StatusLevel(status);
    return currentLevel_.load(std::memory_order_relaxed) <= level && level <= kFatal;
}

void QELLog::QELSaveLog(int moduleId, uint32_t level, const char* text, const char* statusText)
{
    if (text != nullptr && SinkIsOn(moduleId, level)) {
        WriteToSink(moduleId, level, text, statusText);
    }
}

}  // namespace qel

void QEL_LOG_IMPL(const char* funcName, const char* fileName, int line, const char* fmt, ...)
{
    const qel::Place place = {funcName, fileName, line};
    if (!qel::IsComplete(place)) {
        return;
    }
    va_list args;
    va_start(args, fmt);
    qel::LogWithStatusText(place, qel::kInfo, qel::kStatusOk, fmt, args);
    va_end(args);
}

void QEL_LOG_IMPL(const char* funcName, const char* fileName, int line, uint32_t status, const char* fmt, ...)
{
    const qel::Place place = {funcName, fileName, line};
    if (!qel::QELLog::GetInstance().QELLogOutputEnable(status) || !qel::IsComplete(place)) {
        return;
    }
    va_list args;
    va_start(args, fmt);
    qel::LogWithStatusText(place, qel::StatusLevel(status), status, fmt, args);
    va_end(args);
}

void QEL_EVENT_LOG_IMPL(const char* funcName, const char* fileName, int line, const char* fmt, ...)
{
    const qel::Place place = {funcName, fileName, line};
    if (!qel::IsComplete(place)) {
        return;
    }
    va_list args;
    va_start(args, fmt);
    qel::LogWithoutStatusText(place, qel::kEvent, nullptr, fmt, args);
    va_end(args);
}

void QEL_TRACE_LOG_IMPL(const char* funcName, const char* fileName, int line, const char* statusText, const char* fmt,
                        ...)
{
    const qel::Place place = {funcName, fileName, line};
    if (!qel::IsComplete(place)) {
        return;
    }
    va_list args;
    va_start(args, fmt);
    qel::LogWithoutStatusText(place, qel::kTrace, statusText, fmt, args);
    va_end(args);
}

void QEL_OPLOG_IMPL(const char* funcName, const char* fileName, int line, const char* fmt, ...)
{
    const qel::Place place = {funcName, fileName, line};
    if (!qel::IsComplete(place)) {
        return;
    }
    va_list args;
    va_start(args, fmt);
    qel::LogWithoutStatusText(place, qel::kOperation, nullptr, fmt, args);
    va_end(args);
}
