#ifndef GAKPPC_WATCHED_PROCESS_H
#define GAKPPC_WATCHED_PROCESS_H

#include <sys/types.h>

#include <optional>
#include <string>

#include "common/fd.h"
#include "common/ppc_socket.h"

namespace tools {

// The file of libgakppc that a process has loaded, wherever it sees that file and also when it has been replaced since.
struct LoadedLibrary {
    std::string path;  // as the process sees it
    std::string file;  // a path by which we come to it
    // Whether it is still found where the process has loaded it from, under a name without any character that means
    // something to a tracer.
    bool isAtPath = false;
};

// A connection at the end of the watched process, as the kernel knows it.
struct WatchedEnd {
    bool isDaemon = false;  // this end was accepted, the other one has connected
    Peer peer;              // the process at the other end
};

// The process that is watched. Its end is noticed, and its number never taken for that of another process.
class WatchedProcess {
public:
    // Throws ExitError where there is nothing to watch, or where we may not.
    explicit WatchedProcess(pid_t pid);

    pid_t pid() const { return self_.pid; }
    const Peer& self() const { return self_; }
    const std::string& name() const { return name_; }
    const LoadedLibrary& loaded() const { return loaded_; }

    // Whether it listens at the daemon's path.
    bool IsDaemon() const { return isDaemon_; }

    // Whether it knows processes by the same numbers as this one.
    bool SharesPids() const;

    // Readable when it has ended.
    int EndFd() const { return pidfd_.get(); }

    // Whether it has ended, or is about to; whether it executes another program, without the library.
    bool HasEnded() const;
    bool HasReplacedItself() const;

    // Nothing when there is no such connection any more.
    std::optional<WatchedEnd> EndOf(int descriptor) const;

private:
    bool HasLibrary() const;
    bool HasProgram() const;
    Fd Duplicate(int descriptor) const;
    bool ListensAtDaemonsPath() const;

    Peer self_;
    std::string name_;
    Fd pidfd_;
    LoadedLibrary loaded_;
    bool isDaemon_ = false;
};

// The process that listens at the daemon's path. Throws ExitError, kExitNoDaemon when there is none.
pid_t FindDaemon();

}  // namespace tools

#endif
