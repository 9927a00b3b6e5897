#ifndef GAKPPC_OWN_PID_H
#define GAKPPC_OWN_PID_H

#include <atomic>
#include <cstdint>

namespace qel {

extern std::atomic<uint32_t> rememberedPid;  // 0: not known; for OwnPid only

// Asks the system, and remembers the answer until the process forks. For OwnPid only.
uint32_t AskForPid();

// The id of the calling process, as getpid gives it, without a system call for each message.
inline uint32_t OwnPid()
{
    const uint32_t pid = rememberedPid.load(std::memory_order_relaxed);
    return pid != 0 ? pid : AskForPid();
}

}  // namespace qel

#endif
