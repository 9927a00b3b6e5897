#ifndef GAKPPC_GAK_LOG_PROBE_H
#define GAKPPC_GAK_LOG_PROBE_H

#include <cstdint>
#include <functional>

// A small library, libgak_log_probe.so, that writes lines by the macros of gak_log.h. Each line has one argument, which
// the caller computes.
namespace gaktest {

using Argument = std::function<int()>;

void ProbeInfo(const Argument& argument);
void ProbeInfoAs(const Argument& argument);
void ProbeStatus(const std::function<uint32_t()>& status, const Argument& argument);
void ProbeStatusAs(const std::function<uint32_t()>& status, const Argument& argument);
void ProbeEvent(const Argument& argument);
void ProbeEventAs(const Argument& argument);

}  // namespace gaktest

#endif
