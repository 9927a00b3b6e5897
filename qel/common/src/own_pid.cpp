#include "own_pid.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>

namespace qel {
namespace {

std::atomic<uint32_t> knownPid{0};

void ForgetPid()
{
    knownPid.store(0, std::memory_order_relaxed);
}

// A forked child is another process. Without the handler nothing is remembered.
const bool forgottenInChild = pthread_atfork(nullptr, nullptr, ForgetPid) == 0;

}  // namespace

uint32_t OwnPid()
{
    uint32_t pid = knownPid.load(std::memory_order_relaxed);
    if (pid == 0) {
        pid = static_cast<uint32_t>(getpid());
        if (forgottenInChild) {
            knownPid.store(pid, std::memory_order_relaxed);
        }
    }
    return pid;
}

}  // namespace qel
