#ifndef GAKPPC_TRACER_H
#define GAKPPC_TRACER_H

#include <signal.h>
#include <sys/types.h>

#include <string>

#include "common/fd.h"
#include "watched_process.h"

namespace tools {

// bpftrace, attached to a process. It ends with this object, and with the thread that has made it, however that ends;
// the kernel then removes the probes.
class Tracer {
public:
    // `mask` is the signal mask that it is to have. Throws ExitError, also for what is missing on this machine.
    Tracer(const WatchedProcess& process, const sigset_t& mask);
    ~Tracer();
    Tracer(const Tracer&) = delete;
    Tracer& operator=(const Tracer&) = delete;

    // Where its reports and its complaints are read. At their end it has ended, or is about to.
    int Reports() const { return reports_.get(); }
    int Complaints() const { return complaints_.get(); }

    // Asks it to report what it has and to end.
    void RequestEnd() const { kill(pid_, SIGINT); }

private:
    Fd reports_;
    Fd complaints_;
    pid_t pid_ = -1;
};

}  // namespace tools

#endif
