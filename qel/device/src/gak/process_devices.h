#ifndef GAKPPC_PROCESS_DEVICES_H
#define GAKPPC_PROCESS_DEVICES_H

#include <cstdint>
#include <map>

#include "mutex.h"

namespace qel {

// The device that a process has named last: an entry for this process, and in a forked child for its parents. Any
// thread may call any function.
class ProcessDevices {
public:
    // Raises std::bad_alloc.
    void Record(uint32_t pid, uint32_t deviceId)
    {
        MutexLock lock(mutex_);
        devices_[pid] = deviceId;
    }

    // False if the process has named none.
    bool Find(uint32_t pid, uint32_t* deviceId)
    {
        MutexLock lock(mutex_);
        const auto found = devices_.find(pid);
        if (found == devices_.end()) {
            return false;
        }
        *deviceId = found->second;
        return true;
    }

private:
    Mutex mutex_;
    std::map<uint32_t, uint32_t> devices_ GAKPPC_GUARDED_BY(mutex_);
};

}  // namespace qel

#endif
