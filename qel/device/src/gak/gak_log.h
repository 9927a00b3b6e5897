#ifndef GAKPPC_GAK_LOG_H
#define GAKPPC_GAK_LOG_H

#include "log_line.h"

// Log lines of one source file, which defines its path as `kSourcePath`; macros because function and line are their
// user's. The arguments of a line are evaluated only if it will be seen. GAK_INFO and GAK_EVENT take a format and its
// arguments, GAK_STATUS a status number in front of them. The _AS forms name another function: log readers know the
// lines of a public function by its name, also those that a helper of it writes.
//
// GAK_STATUS and GAK_EVENT leave errno alone, also before their arguments are evaluated: lines of failures may name it.
// GAK_INFO may change it.
#define GAK_INFO(...) GAK_INFO_AS(__func__, __VA_ARGS__)
#define GAK_INFO_AS(function, ...) \
    do { \
        if (qel::IsLogEnabled(qel::kLogInfo)) { \
            qel::WriteInfoLine(function, kSourcePath, __LINE__, __VA_ARGS__); \
        } \
    } while (false)

#define GAK_STATUS(...) GAK_STATUS_AS(__func__, __VA_ARGS__)
#define GAK_STATUS_AS(function, status, ...) \
    do { \
        if (const uint32_t lineStatus = (status); qel::IsStatusLogEnabled(lineStatus)) { \
            qel::WriteStatusLine(function, kSourcePath, __LINE__, lineStatus, __VA_ARGS__); \
        } \
    } while (false)

#define GAK_EVENT(...) GAK_EVENT_AS(__func__, __VA_ARGS__)
#define GAK_EVENT_AS(function, ...) \
    do { \
        if (qel::IsLogEnabled(qel::kLogEvent)) { \
            qel::WriteEventLine(function, kSourcePath, __LINE__, __VA_ARGS__); \
        } \
    } while (false)

#endif
