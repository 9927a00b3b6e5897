#ifndef GAKPPC_SERVICE_MANAGER_H
#define GAKPPC_SERVICE_MANAGER_H

#include <cstddef>
#include <optional>

#include "common/deadline.h"

namespace tools {

// Tells systemd how this daemon does (sd_notify). Does nothing when no service manager has asked for it, or without
// libsystemd. What a manager that hangs does not take is lost.
class ServiceManager {
public:
    ServiceManager();

    // All sockets accept.
    void Ready();

    // To be called in each round of the main loop: says that it turns, if a watchdog is to hear that, and how many
    // workers run, if that has changed.
    void Alive(size_t workers);

    // The time after which Alive() is due; never later than this.
    int TimeoutMs(int otherwise) const;

    void Stopping();

private:
    std::optional<Clock::duration> watchdogPeriod_;  // half of the time after which the watchdog bites
    std::optional<Deadline> nextPing_;
    std::optional<size_t> workers_;
};

}  // namespace tools

#endif
