#ifndef GAKPPC_GAK_LOG_H
#define GAKPPC_GAK_LOG_H

#include "info_line.h"
#include "log.h"

// Log calls of one source file. The file defines its path as `kSourcePath`; macros because function and line are their
// user's. GAK_LOG takes a format and its arguments, or a status number in front of them. GAK_LOG_AS names another
// function: log readers know the lines of a public function by its name, also those that a helper of it writes.
#define GAK_LOG(...) QEL_LOG_IMPL(__func__, kSourcePath, __LINE__, __VA_ARGS__)
#define GAK_LOG_AS(function, ...) QEL_LOG_IMPL(function, kSourcePath, __LINE__, __VA_ARGS__)
#define GAK_EVENT(...) QEL_EVENT_LOG_IMPL(__func__, kSourcePath, __LINE__, __VA_ARGS__)
#define GAK_EVENT_AS(function, ...) QEL_EVENT_LOG_IMPL(function, kSourcePath, __LINE__, __VA_ARGS__)

// GAK_LOG with a format, or with kStatusOk in front of it (GAK_FREQUENT_OK_LOG), for the lines that every message has.
// Their arguments are evaluated only if somebody will see the line, and the sink is asked once, as ever.
#define GAK_FREQUENT_LOG(...) GAK_FREQUENT_LOG_AS(__func__, __VA_ARGS__)
#define GAK_FREQUENT_LOG_AS(function, ...) GAK_LOG_IF(qel::InfoLineIsWanted(), function, __VA_ARGS__)
#define GAK_FREQUENT_OK_LOG_AS(function, ...) GAK_LOG_IF(qel::OkLineIsWanted(), function, __VA_ARGS__)
#define GAK_LOG_IF(isWanted, function, ...) \
    do { \
        if (isWanted) { \
            qel::WriteInfoLine(function, kSourcePath, __LINE__, __VA_ARGS__); \
        } \
    } while (false)

#endif
