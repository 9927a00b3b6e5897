#ifndef GAKPPC_FREE_COUNTER_H
#define GAKPPC_FREE_COUNTER_H

#include <atomic>
#include <cstddef>
#include <cstdlib>

#include "import_hook.h"

namespace gaktest {

// Counts the blocks that the library frees.
class FreeCounter {
public:
    FreeCounter() : hook_("free", reinterpret_cast<void*>(&CountingFree)) { count = 0; }
    size_t Count() const { return count; }

private:
    static void CountingFree(void* block)
    {
        count += block != nullptr ? 1 : 0;
        free(block);
    }

    static inline std::atomic<size_t> count{0};
    ImportHook hook_;
};

}  // namespace gaktest

#endif
