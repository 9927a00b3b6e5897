#ifndef GAKPPC_GAK_LOG_H
#define GAKPPC_GAK_LOG_H

#include "log.h"

// Log calls of one source file. The file defines its path as `kSourcePath`; macros because function and line are their
// user's. GAK_LOG takes a format and its arguments, or a status number in front of them. GAK_LOG_AS names another
// function: log readers know the lines of a public function by its name, also those that a helper of it writes.
#define GAK_LOG(...) QEL_LOG_IMPL(__func__, kSourcePath, __LINE__, __VA_ARGS__)
#define GAK_LOG_AS(function, ...) QEL_LOG_IMPL(function, kSourcePath, __LINE__, __VA_ARGS__)
#define GAK_EVENT(...) QEL_EVENT_LOG_IMPL(__func__, kSourcePath, __LINE__, __VA_ARGS__)
#define GAK_EVENT_AS(function, ...) QEL_EVENT_LOG_IMPL(function, kSourcePath, __LINE__, __VA_ARGS__)

#endif
