#include "imports.h"

#include <algorithm>
#include <cstdio>
#include <memory>
#include <set>
#include <sstream>
#include <stdexcept>

#include "fault_injector.h"

namespace gaktest {
namespace {

// Imports that cannot fail as the library calls them, or whose failure means nothing to it.
const std::set<std::string> kCannotFail = {
    "free", "getpid", "isspace", "madvise", "memchr", "memcmp", "memcpy", "memmove", "memset", "mmap", "munmap",
    "snprintf", "strerror", "strlen", "sysconf",
    // Only without optimisation.
    "abort", "htonl", "ntohl",
    // Of the thread itself, with correct arguments.
    "prctl", "pthread_kill", "pthread_mutex_init", "pthread_mutex_lock", "pthread_mutex_unlock", "pthread_self",
    "pthread_sigmask", "sigaddset", "sigdelset", "sigemptyset", "sigfillset", "sigismember", "syscall",
    // Asked only while a tracer looks.
    "getsockopt",
    // The log sink returns nothing; the level questions have no failure.
    "CheckLogLevel", "VlogDebugInner", "VlogErrorInner", "VlogEventInner", "VlogInfoInner", "VlogInner",
    "VlogWarnInner", "VlogWithKVInner", "osalGetTid", "vlog_getlevel", "vlog_init"};

// C++ functions reach the system through the C library, where allocations and thread starts are caught. So do the
// compiler's helpers, which begin with two underscores. "_ITM_..." and "_Unwind_..." are the compiler's as well.
bool IsOfTheLanguage(const std::string& symbol)
{
    return symbol[0] == '_';
}

}  // namespace

std::vector<std::string> ForgottenImports()
{
    const std::unique_ptr<FILE, int (*)(FILE*)> output(
        popen(GAKPPC_NM " -D -P --undefined-only '" GAKPPC_LIBRARY_FILE "'", "r"), &pclose);
    std::vector<std::string> forgotten;
    bool any = false;
    char line[4096];
    while (output != nullptr && fgets(line, sizeof(line), output.get()) != nullptr) {
        std::string symbol;
        std::istringstream(line) >> symbol;
        symbol.resize(std::min(symbol.find('@'), symbol.size()));
        any = any || symbol == "socket";
        if (!IsOfTheLanguage(symbol) && kCannotFail.count(symbol) == 0 && !IsDisturbed(symbol.c_str())) {
            forgotten.push_back(symbol);
        }
    }
    if (!any) {
        throw std::runtime_error("the library's imports cannot be listed");
    }
    return forgotten;
}

}  // namespace gaktest
