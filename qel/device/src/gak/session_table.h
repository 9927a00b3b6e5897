#ifndef GAKPPC_SESSION_TABLE_H
#define GAKPPC_SESSION_TABLE_H

#include <cstdint>
#include <map>
#include <utility>

#include "mutex.h"
#include "ppc_record.h"

namespace qel {

// By device and process id, the session that brought a worker's last message. An entry stays when its session has
// ended, and keeps the session's record: a message to it fails and never reaches another worker. Any thread may call
// any function; those that store something raise std::bad_alloc and have then changed nothing.
class SessionTable {
public:
    // Enters or overwrites. Any pointer is accepted and never dereferenced.
    void Set(uint32_t deviceId, uint32_t subProcPid, void* session);

    // Enters a pair that was never seen with a null handle, and returns that.
    ppc::PpcSessionRef Find(uint32_t deviceId, uint32_t subProcPid);

    void Clear();

private:
    using Worker = std::pair<uint32_t, uint32_t>;  // device, process id

    bool Holds(const Worker& worker, void* session);

    Mutex mutex_;
    std::map<Worker, ppc::PpcSessionRef> sessions_ GAKPPC_GUARDED_BY(mutex_);
};

}  // namespace qel

#endif
