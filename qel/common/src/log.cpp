#include "log.h"

#include <pthread.h>

#include <cerrno>
#include <cstdarg>
#include <new>
#include <string>

#include "log_line.h"
#include "memguard.h"
#include "mutex.h"
#include "osal.h"
#include "status_factory.h"
#include "status_table.h"
#include "vlog.h"

namespace qel {
namespace {

constexpr char kSourcePath[] = "qel/device/../common/src/log";

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

// Keeps errno over calls of the platform's libraries, which may change it.
class PreserveErrno {
public:
    PreserveErrno() = default;
    ~PreserveErrno() { errno = errno_; }
    PreserveErrno(const PreserveErrno&) = delete;
    PreserveErrno& operator=(const PreserveErrno&) = delete;

private:
    const int errno_ = errno;
};

constexpr size_t kMessageSize = 8192;  // with the terminating zero
constexpr size_t kMessageLimit = 8191;
constexpr size_t kLineSize = 8192;

void WriteTrace(int moduleId, const char* text, const char* statusText)
{
    KeyValue status = {"status", statusText};
    VlogWithKVInner(moduleId, kLogEvent, &status, 1, "[%s:%d]%s", kSourcePath, kTraceLine, text);
}

void WriteToSink(int moduleId, uint32_t level, const char* text, const char* statusText)
{
    switch (level) {
        case kLogDebug:
            VlogDebugInner(moduleId, "[%s:%d]%s", kSourcePath, kDebugLine, text);
            break;
        case kLogWarn:
            VlogWarnInner(moduleId, "[%s:%d]%s", kSourcePath, kWarnLine, text);
            break;
        case kLogError:
            VlogErrorInner(moduleId, "[%s:%d]%s", kSourcePath, kErrorLine, text);
            break;
        case kLogEvent:
            VlogEventInner(moduleId, "[%s:%d]%s", kSourcePath, kEventLine, text);
            break;
        case kLogOperation:
            VlogInner(moduleId, kLogOperation, "[%s:%d]%s", kSourcePath, kOperationLine, text);
            break;
        case kLogTrace:
            WriteTrace(moduleId, text, statusText);
            break;
        default:
            VlogInfoInner(moduleId, "[%s:%d]%s", kSourcePath, kInfoLine, text);
            break;
    }
}

// Where a log call is made.
struct SourceLocation {
    const char* function;
    const char* file;
    int line;
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

// The text of kStatusOk, which ends nearly every line. Nobody can register another: the shared table comes first.
constexpr char kOkText[] = "running ok";

// What a line consists of apart from the caller's message.
struct LineParts {
    SourceLocation location;
    uint32_t level;
    bool hasStatus;  // the line ends in the text of `status`
    uint32_t status;
    const char* traceStatus;  // of a trace
};

int ComposeLine(char* line, const LineParts& parts, const char* message)
{
    const SourceLocation& location = parts.location;
    const int thread = osalGetTid();
    if (parts.hasStatus) {
        const std::string text = parts.status == kStatusOk ? std::string() : StatusText(parts.status);
        return sprintf_s(line, kLineSize, "%s,[%s:%d:%s]%d Msg: %s\n", message, location.file, location.line,
                         location.function, thread, parts.status == kStatusOk ? kOkText : text.c_str());
    }
    if (parts.level == kLogOperation) {
        return sprintf_s(line, kLineSize, "[%s:%d:%s]%d %s\n", location.file, location.line, location.function, thread,
                         message);
    }
    return sprintf_s(line, kLineSize, "%s,[%s:%d:%s]%d\n", message, location.file, location.line, location.function,
                     thread);
}

// Not inlined, so that a line that is filtered out costs neither the buffers nor the stack pages under them.
__attribute__((noinline, format(printf, 2, 0))) void WriteLine(const LineParts& parts, const char* fmt, va_list args)
{
    const PreserveErrno preserve;
    // Only the first byte is cleared: nothing reads past the terminating zero.
    char message[kMessageSize + 1];
    char line[kLineSize + 1];
    static_assert(sizeof(message) >= kMessageSize && sizeof(line) >= kLineSize, "the formatters fill these sizes");
    message[0] = '\0';
    line[0] = '\0';
    if (vsnprintf_s(message, kMessageSize, kMessageLimit, fmt, args) == -1 || ComposeLine(line, parts, message) == -1) {
        return;
    }
    WriteToSink(kLogModuleId, parts.level, line, parts.traceStatus);
}

// A line without its location is dropped.
bool IsComplete(const SourceLocation& location)
{
    return location.function != nullptr && location.file != nullptr;
}

bool IsEnabled(uint32_t level)
{
    const PreserveErrno preserve;
    return IsLogEnabled(level);
}

LineParts InfoLine(const SourceLocation& location)
{
    return {location, kLogInfo, true, kStatusOk, nullptr};
}

LineParts StatusLine(const SourceLocation& location, uint32_t status)
{
    return {location, StatusLevel(status), true, status, nullptr};
}

LineParts EventLine(const SourceLocation& location)
{
    return {location, kLogEvent, false, 0, nullptr};
}

Mutex openMutex;  // serialises the first initialisation

// A thread may be inside the first initialisation while another one forks: the child begins with it again. Refused only
// for lack of memory.
[[maybe_unused]] const int forkHandler = pthread_atfork(nullptr, nullptr, [] { openMutex.ResetInChild(); });

}  // namespace

std::atomic<QELLog*> openLog{nullptr};

bool IsStatusLogEnabled(uint32_t status)
{
    const PreserveErrno preserve;
    QELLog* const log = openLog.load(std::memory_order_acquire);
    return (log != nullptr ? *log : QELLog::GetInstance()).QELLogOutputEnable(status) &&
           IsSinkEnabled(kLogModuleId, StatusLevel(status));
}

void WriteInfoLine(const char* funcName, const char* fileName, int line, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    WriteLine(InfoLine({funcName, fileName, line}), fmt, args);
    va_end(args);
}

void WriteStatusLine(const char* funcName, const char* fileName, int line, uint32_t status, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    WriteLine(StatusLine({funcName, fileName, line}, status), fmt, args);
    va_end(args);
}

void WriteEventLine(const char* funcName, const char* fileName, int line, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    WriteLine(EventLine({funcName, fileName, line}), fmt, args);
    va_end(args);
}

QELLog& QELLog::GetInstance()
{
    static QELLog instance;  // constant-initialised and trivially destroyed: there is no guard to wait for
    if (openLog == nullptr) {
        const PreserveErrno preserve;
        MutexLock lock(openMutex);
        instance.Init();
    }
    return instance;
}

void QELLog::Init()
{
    if (openLog != nullptr) {
        return;
    }
    vlog_init();
    currentLevel_ = QELGetCurLogLevel();
    openLog = this;
}

uint32_t QELLog::QELGetCurLogLevel()
{
    int enableEvent = 0;
    const int level = vlog_getlevel(kLogModuleId, &enableEvent);
    return level >= static_cast<int>(kLogDebug) && level <= static_cast<int>(kLogError) ? static_cast<uint32_t>(level)
                                                                                        : kLogInfo;
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
    return currentLevel_.load(std::memory_order_relaxed) <= level && level <= kLogFatal;
}

void QELLog::QELSaveLog(int moduleId, uint32_t level, const char* text, const char* statusText)
{
    const PreserveErrno preserve;
    if (text != nullptr && IsSinkEnabled(moduleId, level)) {
        WriteToSink(moduleId, level, text, statusText);
    }
}

}  // namespace qel

void QEL_LOG_IMPL(const char* funcName, const char* fileName, int line, const char* fmt, ...)
{
    const qel::SourceLocation location = {funcName, fileName, line};
    if (!qel::IsComplete(location) || !qel::IsEnabled(qel::kLogInfo)) {
        return;
    }
    va_list args;
    va_start(args, fmt);
    qel::WriteLine(qel::InfoLine(location), fmt, args);
    va_end(args);
}

void QEL_LOG_IMPL(const char* funcName, const char* fileName, int line, uint32_t status, const char* fmt, ...)
{
    const qel::SourceLocation location = {funcName, fileName, line};
    if (!qel::IsComplete(location) || !qel::IsStatusLogEnabled(status)) {
        return;
    }
    va_list args;
    va_start(args, fmt);
    qel::WriteLine(qel::StatusLine(location, status), fmt, args);
    va_end(args);
}

void QEL_EVENT_LOG_IMPL(const char* funcName, const char* fileName, int line, const char* fmt, ...)
{
    const qel::SourceLocation location = {funcName, fileName, line};
    if (!qel::IsComplete(location) || !qel::IsEnabled(qel::kLogEvent)) {
        return;
    }
    va_list args;
    va_start(args, fmt);
    qel::WriteLine(qel::EventLine(location), fmt, args);
    va_end(args);
}

void QEL_TRACE_LOG_IMPL(const char* funcName, const char* fileName, int line, const char* statusText, const char* fmt,
                        ...)
{
    const qel::SourceLocation location = {funcName, fileName, line};
    if (!qel::IsComplete(location) || !qel::IsEnabled(qel::kLogTrace)) {
        return;
    }
    va_list args;
    va_start(args, fmt);
    qel::WriteLine({location, qel::kLogTrace, false, 0, statusText}, fmt, args);
    va_end(args);
}

void QEL_OPLOG_IMPL(const char* funcName, const char* fileName, int line, const char* fmt, ...)
{
    const qel::SourceLocation location = {funcName, fileName, line};
    if (!qel::IsComplete(location) || !qel::IsEnabled(qel::kLogOperation)) {
        return;
    }
    va_list args;
    va_start(args, fmt);
    qel::WriteLine({location, qel::kLogOperation, false, 0, nullptr}, fmt, args);
    va_end(args);
}
