#ifndef GAKPPC_LOG_LINE_H
#define GAKPPC_LOG_LINE_H

#include <atomic>
#include <cstdint>

#include "log.h"
#include "vlog.h"

// The log functions of log.h in two halves, for callers inside the library: whether the line will be seen, and the
// line. Every message has some ten lines, nearly always unseen: the level check is then all that they cost. Same
// threads and failures as in log.h.

namespace qel {

constexpr int kLogModuleId = 38;

// Levels as the status numbers and the sinks count them.
enum LogLevel : uint32_t {
    kLogDebug = 0,
    kLogInfo = 1,
    kLogWarn = 2,
    kLogError = 3,
    kLogFatal = 4,
    kLogEvent = 5,
    kLogOperation = 6,
    kLogTrace = 7,
};

extern std::atomic<QELLog*> openLog;  // the instance, null before it is initialised; for IsLogEnabled and log.cpp only

// The level check of the sink of `level`. Each line makes it once.
inline bool IsSinkEnabled(int moduleId, uint32_t level)
{
    switch (level) {
        case kLogDebug:
        case kLogWarn:
            return CheckLogLevel(moduleId, static_cast<int>(level)) == 1;
        case kLogError:
        case kLogEvent:
        case kLogOperation:
            return true;
        case kLogTrace:
            return CheckLogLevel(moduleId, kLogEvent) == 1;
        default:
            return CheckLogLevel(moduleId, kLogInfo) == 1;
    }
}

// Whether a line of `level` will be seen. Opens the platform's library before the first line. The level check may
// change errno, and keeping it would cost each message more than the rest of the question; events make no level check.
inline bool IsLogEnabled(uint32_t level)
{
    if (openLog.load(std::memory_order_acquire) == nullptr) {
        QELLog::GetInstance();
    }
    return IsSinkEnabled(kLogModuleId, level);
}

// Whether a line with a status will be seen: the library's own level counts as well. Leaves errno as it was.
bool IsStatusLogEnabled(uint32_t status);

// The lines of the plain QEL_LOG_IMPL, of the one with a status, and of QEL_EVENT_LOG_IMPL. They check no level, and
// leave errno as it was.
void WriteInfoLine(const char* funcName, const char* fileName, int line, const char* fmt, ...)
    __attribute__((cold, format(printf, 4, 5)));
void WriteStatusLine(const char* funcName, const char* fileName, int line, uint32_t status, const char* fmt, ...)
    __attribute__((cold, format(printf, 5, 6)));
void WriteEventLine(const char* funcName, const char* fileName, int line, const char* fmt, ...)
    __attribute__((cold, format(printf, 4, 5)));

}  // namespace qel

#endif
