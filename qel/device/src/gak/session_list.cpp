#include "session_list.h"

#include <algorithm>

namespace qel {

void SessionList::AddPending(const ppc::PpcSessionRef& session)
{
    Sessions added{session};
    MutexLock lock(mutex_);
    pending_.splice(pending_.end(), added);
}

void SessionList::ListPending(void* session)
{
    MutexLock lock(mutex_);
    sessions_.splice(sessions_.end(), Take(pending_, session));
}

SessionList::Removal SessionList::Remove(void* session)
{
    Sessions removed;  // released when the mutex has been
    MutexLock lock(mutex_);
    const size_t sizeBefore = sessions_.size();
    removed = Take(sessions_, session);
    const bool found = !removed.empty();
    removed.splice(removed.end(), Take(pending_, session));
    return {found, sizeBefore};
}

SessionList::Sessions SessionList::TakeAll()
{
    Sessions taken;
    MutexLock lock(mutex_);
    taken.swap(sessions_);
    return taken;
}

SessionList::Sessions SessionList::Take(Sessions& from, void* session)
{
    Sessions taken;
    const auto found =
        std::find_if(from.begin(), from.end(), [session](const auto& entry) { return entry.Get() == session; });
    if (found != from.end()) {
        taken.splice(taken.end(), from, found);
    }
    return taken;
}

}  // namespace qel
