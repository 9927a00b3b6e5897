// A device log that does what no such library should. Loaded in front of the real one; HOSTILE_LOG says what it does:
// "errno" changes errno in every function, "slow" takes its time for every line, and "calls-back" sends a heartbeat (in
// a worker) or asks for the state (in a daemon) for every line. All but the last write every level.

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "ppc_server.h"
#include "vlog.h"

namespace {

bool Is(const char* mode)
{
    static const char* const chosen = getenv("HOSTILE_LOG");
    return chosen != nullptr && strcmp(chosen, mode) == 0;
}

void CallBack()
{
    static thread_local bool inside = false;
    if (!inside) {
        inside = true;
        qel::PpcServer::GetInstance().IsPPCServerRunning();
        qel::PpcServer::GetInstance().JoinAllPPCRcvThreads();
        inside = false;
    }
}

void Misbehave()
{
    if (Is("slow")) {
        const timespec pause = {0, 1000000};
        nanosleep(&pause, nullptr);
    } else if (Is("calls-back")) {
        CallBack();
    }
    errno = ENOTBLK;
}

void Write(const char* level, const char* fmt, va_list args)
{
    char line[10000];
    vsnprintf(line, sizeof(line), fmt, args);
    fprintf(stderr, "hostile %s %s\n", level, line);
    Misbehave();
}

}  // namespace

extern "C" {

int CheckLogLevel(int, int)
{
    errno = ENOTBLK;
    return 1;
}

#define WRITER(name, level) \
    void name(int, const char* fmt, ...) \
    { \
        va_list args; \
        va_start(args, fmt); \
        Write(level, fmt, args); \
        va_end(args); \
    }

WRITER(VlogDebugInner, "DEBUG")
WRITER(VlogInfoInner, "INFO")
WRITER(VlogWarnInner, "WARN")
WRITER(VlogErrorInner, "ERROR")
WRITER(VlogEventInner, "EVENT")
}
