#ifndef GAKPPC_ATTEMPT_H
#define GAKPPC_ATTEMPT_H

#include <sys/types.h>

#include <optional>
#include <string>

#include "identity.h"

namespace tools {

// The process that listens, as a connection to it tells.
struct Listener {
    pid_t pid = 0;        // that called listen; 0 when it is in another pid namespace
    Identity user;        // of that process then
    std::string boundAt;  // the path to which its socket was bound, wherever the file has been moved since
};

// What a user gets from the system when it tries. Each number is an errno, 0 for success.
struct Attempt {
    int enterHome = 0;       // may it search /home,
    int enterParent = 0;     // /home/KrovaUser
    int enterDirectory = 0;  // and the socket directory?
    int writeSocket = 0;     // may it write to the socket?
    int makeDirectory = 0;   // may it make the directory in its parent?
    int connect = 0;         // EAGAIN: the listener's queue was full all the time
    std::optional<Listener> listener;
};

// Connects to the daemon's socket as `user` and closes the connection at once, without a byte: a daemon sees a session
// that ends before its first message. Another user than the caller is tried in a child process. Raises ExitError when
// the caller may not become that user.
Attempt TryToConnect(const Identity& user, bool isCaller);

}  // namespace tools

#endif
