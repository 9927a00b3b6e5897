#include "log_probe.h"

#include <cerrno>
#include <string>

namespace {

constexpr int kModuleId = 38;

}  // namespace

void ProbeDebug(const char* text)
{
    VlogDebugInner(kModuleId, "%s", text);
}

void ProbeInfo(const char* text)
{
    VlogInfoInner(kModuleId, "%s", text);
}

void ProbeWarn(const char* text)
{
    VlogWarnInner(kModuleId, "%s", text);
}

void ProbeError(const char* text)
{
    VlogErrorInner(kModuleId, "%s", text);
}

void ProbeEvent(const char* text)
{
    VlogEventInner(kModuleId, "%s", text);
}

void ProbeInner(int level, const char* text)
{
    VlogInner(kModuleId, level, "%s", text);
}

void ProbeWithKv(int level, const char* key, const char* value, const char* text)
{
    KeyValue pair{key, value};
    VlogWithKVInner(kModuleId, level, &pair, 1, "%s", text);
}

void ProbeErrorWithErrno(int number)
{
    const std::string format = "%s %d: %m";  // an extension, which the compiler would remark on
    errno = number;
    VlogErrorInner(kModuleId, format.c_str(), "failed", number);
}

int ProbeCheckLogLevel(int level)
{
    return CheckLogLevel(kModuleId, level);
}

int ProbeGetLevel()
{
    int enableEvent = 0;
    return vlog_getlevel(kModuleId, &enableEvent);
}

int ProbeInit()
{
    return vlog_init();
}
