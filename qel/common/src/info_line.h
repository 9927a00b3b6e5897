#ifndef GAKPPC_INFO_LINE_H
#define GAKPPC_INFO_LINE_H

// The two halves of a plain log line, for callers inside the library that want to know first whether there will be
// one. Same threads and failures as in log.h.

namespace qel {

// Asks the sink.
bool InfoLineIsWanted();

// The same for a line of the other QEL_LOG_IMPL whose status is the one that plain lines have, "running ok".
bool OkLineIsWanted();

// The line of the plain QEL_LOG_IMPL. Asks nobody.
void WriteInfoLine(const char* funcName, const char* fileName, int line, const char* fmt, ...)
    __attribute__((cold, format(printf, 4, 5)));

}  // namespace qel

#endif
