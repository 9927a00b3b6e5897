#ifndef GAKPPC_INFO_LINE_H
#define GAKPPC_INFO_LINE_H

#include "log.h"
#include "vlog.h"

// The two halves of a plain log line, for callers inside the library that want to know first whether there will be
// one. Same threads and failures as in log.h.

namespace qel {

constexpr int kLogModuleId = 38;
constexpr int kInfoLevel = 1;

// Opens the platform's library before the first line; costs one load afterwards.
struct QELLog::Opener {
    static void Open()
    {
        if (!isInitFlag.load(std::memory_order_acquire)) {
            GetInstance();
        }
    }
};

// Asks the sink. Every message has some ten such lines, nearly always unseen: the question is all that they cost.
inline bool InfoLineIsWanted()
{
    QELLog::Opener::Open();
    return CheckLogLevel(kLogModuleId, kInfoLevel) == 1;
}

// The same for a line of the other QEL_LOG_IMPL whose status is the one that plain lines have, "running ok".
bool OkLineIsWanted();

// The line of the plain QEL_LOG_IMPL. Asks nobody.
void WriteInfoLine(const char* funcName, const char* fileName, int line, const char* fmt, ...)
    __attribute__((cold, format(printf, 4, 5)));

}  // namespace qel

#endif
