#include "log_sink.h"

#include "scheduler.h"
#include "vlog.h"

namespace gaktest {

LogSink logSink;

}  // namespace gaktest

namespace {

// A line is written, which is a call out of the library.
void WriteLine(const void* returnAddress)
{
    if (gaktest::self == nullptr) {
        return;
    }
    gaktest::Do({gaktest::Op::kLogLine, gaktest::PlaceOf(returnAddress)});
    if (gaktest::logSink.onLine != nullptr) {
        gaktest::logSink.onLine();
    }
}

}  // namespace

#define HERE __builtin_return_address(0)

extern "C" {

int vlog_init()
{
    if (gaktest::self != nullptr) {
        gaktest::Do({gaktest::Op::kLogLine, gaktest::PlaceOf(HERE)});
    }
    ++gaktest::logSink.opened;
    return 0;
}

int vlog_getlevel(int, int* enableEvent)
{
    if (enableEvent != nullptr) {
        *enableEvent = 1;
    }
    return gaktest::logSink.level;
}

int CheckLogLevel(int, int logLevel)
{
    return logLevel >= gaktest::logSink.level ? 1 : 0;
}

void VlogDebugInner(int, const char*, ...)
{
    WriteLine(HERE);
}

void VlogInfoInner(int, const char*, ...)
{
    WriteLine(HERE);
}

void VlogWarnInner(int, const char*, ...)
{
    WriteLine(HERE);
}

void VlogErrorInner(int, const char*, ...)
{
    WriteLine(HERE);
}

void VlogEventInner(int, const char*, ...)
{
    WriteLine(HERE);
}

void VlogInner(int, int, const char*, ...)
{
    WriteLine(HERE);
}

void VlogWithKVInner(int, int, KeyValue*, int, const char*, ...)
{
    WriteLine(HERE);
}

}  // extern "C"
