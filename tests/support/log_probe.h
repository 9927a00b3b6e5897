#ifndef GAKPPC_LOG_PROBE_H
#define GAKPPC_LOG_PROBE_H

#include "vlog.h"

// A small library, liblog_probe.so, that calls every function of the device logging library, for the tests of
// LogCapture.
extern "C" {
void ProbeDebug(const char* text);
void ProbeInfo(const char* text);
void ProbeWarn(const char* text);
void ProbeError(const char* text);
void ProbeEvent(const char* text);
void ProbeInner(int level, const char* text);
void ProbeWithKv(int level, const char* key, const char* value, const char* text);
// Writes with a format that ends in %m.
void ProbeErrorWithErrno(int number);
int ProbeCheckLogLevel(int level);
int ProbeGetLevel();
int ProbeInit();
}

#endif
