#ifndef GAKPPC_FACTS_H
#define GAKPPC_FACTS_H

#include <sys/types.h>

#include <optional>
#include <vector>

#include "attempt.h"
#include "common/ppc_socket.h"
#include "files.h"
#include "identity.h"
#include "process_info.h"

namespace tools {

// All that the diagnosis rests on.
struct Facts {
    Identity user;  // who wants to connect
    bool callerIsRoot = false;
    Attempt attempt;
    FileInfo parent, directory, socket, saved;
    std::optional<FileSystem> fileSystem;  // of the directory, or of its parent where there is none

    Held socketHeld = Held::kUnknown;
    Held savedHeld = Held::kUnknown;
    bool isTapped = false;  // a tap's socket is in the place of the daemon's, which is at the saved path

    ProcessInfo daemon;
    bool daemonIsServing = false;        // that process was seen to have the daemon's socket open
    std::optional<Identity> daemonUser;  // whose daemon listens, or was the last to
    std::optional<unsigned> waiting;     // connections in its queue

    // Processes that listen on a socket that was bound to the daemon's path and cannot be reached there any more. One
    // that we may not see, with the pid 0, may as well belong to a container.
    std::vector<ProcessInfo> unreachable;

    bool IsConnected() const { return attempt.connect == 0; }
    // A tap was killed: the daemon listens at the saved path, and nobody in its place.
    bool HasStrandedSocket() const { return socketHeld == Held::kNo && savedHeld == Held::kYes; }
    // A daemon is known to listen where workers look, or behind the tap that they find there.
    bool DaemonListens() const { return (isTapped ? savedHeld : socketHeld) == Held::kYes; }
};

// Looks at this machine and connects once. Raises ExitError when the caller may not become `user`.
Facts GatherFacts(const Identity& user, bool isCaller);

}  // namespace tools

#endif
