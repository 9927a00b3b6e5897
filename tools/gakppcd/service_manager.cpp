#include "service_manager.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <string>

#ifdef GAKPPC_HAS_SYSTEMD
#include <systemd/sd-daemon.h>
#endif

namespace tools {
namespace {

#ifdef GAKPPC_HAS_SYSTEMD
void Notify(const std::string& state)
{
    sd_notify(0, state.c_str());
}

uint64_t WatchdogMicroseconds()
{
    uint64_t microseconds = 0;
    return sd_watchdog_enabled(0, &microseconds) > 0 ? microseconds : 0;
}
#else
void Notify(const std::string& /*state*/) {}

uint64_t WatchdogMicroseconds()
{
    return 0;
}
#endif

}  // namespace

ServiceManager::ServiceManager()
{
    const uint64_t microseconds = WatchdogMicroseconds();
    if (microseconds > 0) {
        watchdogPeriod_ = std::chrono::microseconds(microseconds / 2);
        nextPing_.emplace(*watchdogPeriod_);
    }
}

void ServiceManager::Ready()
{
    Notify("READY=1");
}

void ServiceManager::Alive(size_t workers)
{
    if (HasPassed(nextPing_)) {
        Notify("WATCHDOG=1");
        nextPing_.emplace(*watchdogPeriod_);
    }
    if (workers_ != workers) {
        workers_ = workers;
        Notify(fmt::format("STATUS={} worker{} running", workers, workers == 1 ? "" : "s"));
    }
}

int ServiceManager::TimeoutMs(int otherwise) const
{
    return nextPing_.has_value() ? std::min(otherwise, nextPing_->RemainingMs()) : otherwise;
}

void ServiceManager::Stopping()
{
    Notify("STOPPING=1");
}

}  // namespace tools
