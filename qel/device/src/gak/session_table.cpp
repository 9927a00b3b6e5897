#include "session_table.h"

namespace qel {

void SessionTable::Set(uint32_t deviceId, uint32_t subProcPid, void* session)
{
    const Worker worker(deviceId, subProcPid);
    if (Holds(worker, session)) {
        return;  // the usual case: every message of a worker comes here
    }
    ppc::PpcSessionRef entry(session);  // becomes the former entry, which is released when the mutex has been
    MutexLock lock(mutex_);
    std::swap(sessions_[worker], entry);
}

// False for a handle from elsewhere: only the address of a held session cannot have become another session's.
bool SessionTable::Holds(const Worker& worker, void* session)
{
    MutexLock lock(mutex_);
    const auto entry = sessions_.find(worker);
    return entry != sessions_.end() && entry->second.IsHeld() && entry->second.Get() == session;
}

ppc::PpcSessionRef SessionTable::Find(uint32_t deviceId, uint32_t subProcPid)
{
    MutexLock lock(mutex_);
    return sessions_[{deviceId, subProcPid}];
}

void SessionTable::Clear()
{
    decltype(sessions_) cleared;  // released when the mutex has been
    MutexLock lock(mutex_);
    cleared.swap(sessions_);
}

}  // namespace qel
