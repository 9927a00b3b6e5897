#ifndef GAKPPC_SESSION_LIST_H
#define GAKPPC_SESSION_LIST_H

#include <cstddef>
#include <list>

#include "mutex.h"
#include "ppc_record.h"

namespace qel {

// The sessions that have been accepted and not yet closed, in the order of their acceptance. The list keeps their
// records, so that no address becomes another session's between taking a session off the list and closing it. Any
// thread may call any function.
//
// A receive thread is started before its session is listed and may close it in between. The session is pending
// meanwhile: listing it cannot fail, and does nothing when it has been closed.
class SessionList {
public:
    using Sessions = std::list<ppc::PpcSessionRef>;

    // Raises std::bad_alloc.
    void AddPending(const ppc::PpcSessionRef& session);
    // Lists a pending session.
    void ListPending(void* session);

    struct Removal {
        bool found;
        size_t sizeBefore;
    };
    // A session that is pending counts as not found.
    Removal Remove(void* session);

    Sessions TakeAll();

private:
    // Moves a session out of one of the lists; empty if it is not there.
    Sessions Take(Sessions& from, void* session) GAKPPC_REQUIRES(mutex_);

    Mutex mutex_;
    Sessions sessions_ GAKPPC_GUARDED_BY(mutex_);
    Sessions pending_ GAKPPC_GUARDED_BY(mutex_);
};

}  // namespace qel

#endif
