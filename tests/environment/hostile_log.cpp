// A device log that does what no such library should. Loaded in front of the real one; HOSTILE_LOG says what it does:
// "errno" changes errno in every function, "slow" takes its time for every line, "calls-back" asks for the state and
// reaps threads for every line, "blocks" holds each thread up at its first line, and a number blocks the threads with
// the name "stuck" forever at their line of that number. It writes every level.

#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "ppc_server.h"
#include "vlog.h"

// Of the program; called when a thread blocks forever.
extern "C" void OnStuck() __attribute__((weak));

namespace {

const char* Mode()
{
    static const char* const chosen = getenv("HOSTILE_LOG");
    return chosen != nullptr ? chosen : "";
}

bool Is(const char* mode)
{
    return strcmp(Mode(), mode) == 0;
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

void Pause(long milliseconds)
{
    const timespec pause = {0, milliseconds * 1000000};
    nanosleep(&pause, nullptr);
}

bool IsOfAStuckThread()
{
    char name[16] = "";
    return pthread_getname_np(pthread_self(), name, sizeof(name)) == 0 && strcmp(name, "stuck") == 0;
}

void BlockForever()
{
    if (OnStuck != nullptr) {
        OnStuck();
    }
    for (;;) {
        pause();
    }
}

void Misbehave(const char* line)
{
    static const long stuckAt = strtol(Mode(), nullptr, 10);
    static thread_local int lines = 0;
    // The line of a connect is written under the client's session mutex, as all of the connect is: whoever is stuck
    // there holds up the client's other sessions, in the log as in the daemon's queue.
    lines += strstr(line, "[drvPpcSessionConnect:") == nullptr ? 1 : 0;
    if (lines == stuckAt && IsOfAStuckThread()) {
        BlockForever();
    } else if (Is("blocks") && lines == 1) {
        Pause(300);
    } else if (Is("slow")) {
        Pause(1);
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
    Misbehave(line);
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
