#include "own_pid.h"

#include <pthread.h>
#include <unistd.h>

namespace qel {
namespace {

void ForgetPid()
{
    rememberedPid.store(0, std::memory_order_relaxed);
}

// A forked child is another process. Without the handler nothing is remembered.
const bool forgottenInChild = pthread_atfork(nullptr, nullptr, ForgetPid) == 0;

}  // namespace

std::atomic<uint32_t> rememberedPid{0};

uint32_t AskForPid()
{
    const auto pid = static_cast<uint32_t>(getpid());
    if (forgottenInChild) {
        rememberedPid.store(pid, std::memory_order_relaxed);
    }
    return pid;
}

}  // namespace qel
