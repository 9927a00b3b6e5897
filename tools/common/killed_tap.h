#ifndef GAKPPC_KILLED_TAP_H
#define GAKPPC_KILLED_TAP_H

#include <string>

// A tap that is killed leaves the daemon's socket at kSavedSocketPath and its own one, which nobody listens on any
// more, at kSocketPath.
namespace tools {

// Removes kSavedSocketPath if no process has the socket behind it open and no tap is in place. Whether it did. When two
// do so at the same time, neither removes what is in use.
bool RemoveSavedSocket();

// Removes kSavedSocketPath, or moves it back to kSocketPath if only the former is in use. What has been done, empty
// when there was nothing to do. ExitError when a tap is in place, both are in use or that cannot be told.
std::string RepairAfterKilledTap();

}  // namespace tools

#endif
