#ifndef GAKPPC_SILENT_LOG_H
#define GAKPPC_SILENT_LOG_H

#include "import_hook.h"

namespace gaktest {

// Drops what libgakppc logs at the levels that are on by default, for the length of a scope: long runs in which failing
// is the daily bread would write nothing else. Lines are composed all the same.
class SilentLog {
public:
    SilentLog()
        : warnings_("VlogWarnInner", reinterpret_cast<void*>(&Drop)),
          errors_("VlogErrorInner", reinterpret_cast<void*>(&Drop)),
          events_("VlogEventInner", reinterpret_cast<void*>(&Drop))
    {
    }

private:
    static void Drop(int, const char*, ...) {}

    const ImportHook warnings_;
    const ImportHook errors_;
    const ImportHook events_;
};

}  // namespace gaktest

#endif
