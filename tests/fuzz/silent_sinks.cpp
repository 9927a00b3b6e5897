// Replaces the device log's functions: a program under fuzzing fails all day long, and its lines would be all
// that it does. What is written at warning and above is composed all the same.

#include "vlog.h"

int CheckLogLevel(int /*moduleId*/, int logLevel)
{
    constexpr int kWarn = 2;
    return logLevel >= kWarn ? 1 : 0;
}

void VlogDebugInner(int /*moduleId*/, const char* /*fmt*/, ...) {}
void VlogInfoInner(int /*moduleId*/, const char* /*fmt*/, ...) {}
void VlogWarnInner(int /*moduleId*/, const char* /*fmt*/, ...) {}
void VlogErrorInner(int /*moduleId*/, const char* /*fmt*/, ...) {}
void VlogEventInner(int /*moduleId*/, const char* /*fmt*/, ...) {}
void VlogInner(int /*moduleId*/, int /*level*/, const char* /*fmt*/, ...) {}
void VlogWithKVInner(int /*moduleId*/, int /*level*/, KeyValue* /*pairs*/, int /*pairCount*/, const char* /*fmt*/, ...)
{
}
