#include "own_pid.h"

#include <sys/mman.h>
#include <unistd.h>

#include <new>

namespace qel {
namespace {

std::atomic<uint32_t>* MapMemoryThatForkWipes() noexcept
{
    const auto size = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    void* page = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (page == MAP_FAILED) {
        return nullptr;
    }
    // An emulator that takes advice without following it takes any.
    constexpr int kNoAdvice = -1;
    if (madvise(page, size, kNoAdvice) == 0 || madvise(page, size, MADV_WIPEONFORK) != 0) {
        munmap(page, size);
        return nullptr;
    }
    return new (page) std::atomic<uint32_t>(0);
}

}  // namespace

std::atomic<uint32_t>* const rememberedPid = MapMemoryThatForkWipes();

uint32_t AskForPid()
{
    const auto pid = static_cast<uint32_t>(getpid());
    if (rememberedPid != nullptr) {
        rememberedPid->store(pid, std::memory_order_relaxed);
    }
    return pid;
}

}  // namespace qel
