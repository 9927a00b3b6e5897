#ifndef GAKPPC_PPC_LOG_H
#define GAKPPC_PPC_LOG_H

#include "vlog.h"

// The driver's log lines. All of them name one source path, whichever file writes them.

namespace ppc {

constexpr int kModuleId = 38;
constexpr int kLevelInfo = 1;
constexpr int kLevelWarn = 2;
constexpr char kSourcePath[] = "qel/device/src/ppc/ppc";

}  // namespace ppc

// Format and arguments of one log line; further arguments of the text may follow. A macro because the line number and
// the function are its user's.
#define PPC_LINE(text, end) "[%s:%d][%s:%d] >>> " text end, ppc::kSourcePath, __LINE__, __func__, __LINE__
#define PPC_TEXT(text) PPC_LINE(text, "\n\n")

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
