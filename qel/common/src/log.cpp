#include "log.h"

#include <cstdarg>
#include <string>

#include "info_line.h"
#include "memguard.h"
#include "mutex.h"
#include "no_destructor.h"
#include "osal.h"
#include "status_factory.h"
#include "status_table.h"
#include "vlog.h"

namespace qel {
namespace {

constexpr char kSourcePath[] = "qel/device/../common/src/log";

// Levels as the status numbers and the sinks count them.
enum Level : uint32_t {
    kDebug = 0,
    kInfo = kInfoLevel,
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

// What a line consists of besides the caller's message.
struct LineParts {
    Place place;
    uint32_t level;
    bool hasStatus;  // the line ends in the text of `status`
    uint32_t status;
    const char* traceStatus;  // of a trace
};

int ComposeLine(char* line, const LineParts& parts, const char* message)
{
    const Place& place = parts.place;
    const int thread = osalGetTid();
    if (parts.hasStatus) {
        const std::string text = parts.status == kStatusOk ? std::string() : StatusText(parts.status);
        return sprintf_s(line, kLineSize, "%s,[%s:%d:%s]%d Msg: %s\n", message, place.file, place.line, place.function,
                         thread, parts.status == kStatusOk ? kOkText : text.c_str());
    }
    if (parts.level == kOperation) {
        return sprintf_s(line, kLineSize, "[%s:%d:%s]%d %s\n", place.file, place.line, place.function, thread, message);
    }
    return sprintf_s(line, kLineSize, "%s,[%s:%d:%s]%d\n", message, place.file, place.line, place.function, thread);
}

// Not inlined, so that a line that nobody will see costs neither the buffers nor the stack pages under them.
__attribute__((noinline, format(printf, 2, 0))) void WriteLine(const LineParts& parts, const char* fmt, va_list args)
{
    // Only the first byte is cleared: nothing reads behind a terminating zero.
    char message[kMessageSize + 1];
    char line[kLineSize + 1];
    message[0] = '\0';
    line[0] = '\0';
    if (vsnprintf_s(message, kMessageSize, kMessageLimit, fmt, args) == -1 || ComposeLine(line, parts, message) == -1) {
        return;
    }
    WriteToSink(kLogModuleId, parts.level, line, parts.traceStatus);
}

// Whether a line is to be composed: the platform's library is open, the line has a place, its sink is on. Asked first,
// because most lines are never seen.
bool IsWanted(const Place& place, uint32_t level)
{
    if (place.function == nullptr || place.file == nullptr) {
        return false;
    }
    QELLog::Opener::Open();
    return SinkIsOn(kLogModuleId, level);
}

__attribute__((format(printf, 2, 0))) void ComposeInfoLine(const Place& place, const char* fmt, va_list args)
{
    WriteLine({place, kInfo, true, kStatusOk, nullptr}, fmt, args);
}

}  // namespace

bool OkLineIsWanted()
{
    return QELLog::GetInstance().QELLogOutputEnable(kStatusOk) && InfoLineIsWanted();
}

void WriteInfoLine(const char* funcName, const char* fileName, int line, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    ComposeInfoLine({funcName, fileName, line}, fmt, args);
    va_end(args);
}

std::atomic<bool> QELLog::isInitFlag{false};
Mutex QELLog::mutexHandle;

QELLog& QELLog::GetInstance()
{
    static NoDestructor<QELLog> instance;
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
    const int level = vlog_getlevel(kLogModuleId, &enableEvent);
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
    if (!qel::IsWanted(place, qel::kInfo)) {
        return;
    }
    va_list args;
    va_start(args, fmt);
    qel::ComposeInfoLine(place, fmt, args);
    va_end(args);
}

void QEL_LOG_IMPL(const char* funcName, const char* fileName, int line, uint32_t status, const char* fmt, ...)
{
    const qel::Place place = {funcName, fileName, line};
    const uint32_t level = qel::StatusLevel(status);
    if (!qel::QELLog::GetInstance().QELLogOutputEnable(status) || !qel::IsWanted(place, level)) {
        return;
    }
    va_list args;
    va_start(args, fmt);
    qel::WriteLine({place, level, true, status, nullptr}, fmt, args);
    va_end(args);
}

void QEL_EVENT_LOG_IMPL(const char* funcName, const char* fileName, int line, const char* fmt, ...)
{
    const qel::Place place = {funcName, fileName, line};
    if (!qel::IsWanted(place, qel::kEvent)) {
        return;
    }
    va_list args;
    va_start(args, fmt);
    qel::WriteLine({place, qel::kEvent, false, 0, nullptr}, fmt, args);
    va_end(args);
}

void QEL_TRACE_LOG_IMPL(const char* funcName, const char* fileName, int line, const char* statusText, const char* fmt,
                        ...)
{
    const qel::Place place = {funcName, fileName, line};
    if (!qel::IsWanted(place, qel::kTrace)) {
        return;
    }
    va_list args;
    va_start(args, fmt);
    qel::WriteLine({place, qel::kTrace, false, 0, statusText}, fmt, args);
    va_end(args);
}

void QEL_OPLOG_IMPL(const char* funcName, const char* fileName, int line, const char* fmt, ...)
{
    const qel::Place place = {funcName, fileName, line};
    if (!qel::IsWanted(place, qel::kOperation)) {
        return;
    }
    va_list args;
    va_start(args, fmt);
    qel::WriteLine({place, qel::kOperation, false, 0, nullptr}, fmt, args);
    va_end(args);
}
