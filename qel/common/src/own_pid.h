#ifndef GAKPPC_OWN_PID_H
#define GAKPPC_OWN_PID_H

#include <cstdint>

namespace qel {

// The id of the calling process, as getpid gives it, without a system call for each message.
uint32_t OwnPid();

}  // namespace qel

#endif
