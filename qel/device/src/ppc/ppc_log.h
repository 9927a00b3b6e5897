#ifndef GAKPPC_PPC_LOG_H
#define GAKPPC_PPC_LOG_H

#include "vlog.h"

// The driver's log lines. All of them name one source path, whichever file writes them.

namespace ppc {

constexpr int kModuleId = 38;
constexpr int kLevelInfo = 1;
constexpr int kLevelWarn = 2;
constexpr char kSourcePath[] = "qel/device/src/ppc/ppc";

// The exported function that a line is written for, and where in it. Helpers take it from their caller.
struct CallSite {
    const char* function;
    int line;
};

}  // namespace ppc

// Format and arguments of one log line, in the name of a call site; further arguments of the text may follow.
#define PPC_LINE_AT(site, text, end) \
    "[%s:%d][%s:%d] >>> " text end, ppc::kSourcePath, (site).line, (site).function, (site).line
#define PPC_TEXT_AT(site, text) PPC_LINE_AT(site, text, "\n\n")

// The same in the name of the function that they stand in.
#define PPC_CALL_SITE (ppc::CallSite{__func__, __LINE__})
#define PPC_TEXT(text) PPC_TEXT_AT(PPC_CALL_SITE, text)

// Errors are always written, warnings and information only when the sink says that their level is on.
#define PPC_ERROR(...) VlogErrorInner(ppc::kModuleId, __VA_ARGS__)
#define PPC_WARN(...) \
    do { \
        if (CheckLogLevel(ppc::kModuleId, ppc::kLevelWarn) == 1) { \
            VlogWarnInner(ppc::kModuleId, __VA_ARGS__); \
        } \
    } while (false)
#define PPC_INFO(...) \
    do { \
        if (CheckLogLevel(ppc::kModuleId, ppc::kLevelInfo) == 1) { \
            VlogInfoInner(ppc::kModuleId, __VA_ARGS__); \
        } \
    } while (false)

#endif
