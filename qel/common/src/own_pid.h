#ifndef GAKPPC_OWN_PID_H
#define GAKPPC_OWN_PID_H

#include <atomic>
#include <cstdint>

namespace qel {

// In memory that is zero again in every new process, however it was made (fork, _Fork, clone). Null where the system
// has no such memory. For OwnPid only.
extern std::atomic<uint32_t>* const rememberedPid;

// Asks the system, and remembers the answer where that is possible. For OwnPid only.
uint32_t AskForPid();

// The id of the calling process, as getpid gives it, without a system call for each message.
inline uint32_t OwnPid()
{
    const uint32_t pid = rememberedPid != nullptr ? rememberedPid->load(std::memory_order_relaxed) : 0;
    return pid != 0 ? pid : AskForPid();
}

}  // namespace qel

#endif
