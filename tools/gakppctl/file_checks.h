#ifndef GAKPPC_FILE_CHECKS_H
#define GAKPPC_FILE_CHECKS_H

#include <sys/stat.h>

#include "checks.h"
#include "common/listeners.h"

namespace tools {

// What the file checks need to know about the daemon: nothing when none runs.
struct DaemonProcess {
    pid_t pid = 0;  // 0: none, or not to be found out
    uid_t uid = 0;
    mode_t umask = 0;
};

// Whether the directory can be used at all, so that there is a point in looking into it.
bool CheckDirectory(Diagnosis& diagnosis, const DaemonProcess& daemon);

// The socket file, its access rights and whether anybody listens at it.
void CheckSocket(Diagnosis& diagnosis, const DaemonProcess& daemon, bool listens);

// What a tap that was killed has left. Whether there is anything: the socket's state is then explained by it.
bool CheckTapLeftover(Diagnosis& diagnosis);

}  // namespace tools

#endif
