#ifndef GAKPPC_CLIENT_SESSIONS_H
#define GAKPPC_CLIENT_SESSIONS_H

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <map>

#include "mutex.h"
#include "ppc_record.h"

namespace qel {

// The client's sessions by their key, and whether the client runs: from the first session on until DestroyAll. Any
// thread may call any function.
//
// The mutex is held over a connect, so that a key is connected once and DestroyAll sees every connection. It is not
// held while a line is logged or a session ended.
class ClientSessions {
public:
    enum class AfterDestroy { kStartOver, kOpenNothing };

    // Finds or connects. A null handle when that fails, and after DestroyAll for those who then open nothing.
    ppc::PpcSessionRef Get(uint32_t key, AfterDestroy afterDestroy);

    // False, having changed nothing, when the client does not run. A first connect is not waited for.
    bool DestroyAll();

    // Whether all sessions have been destroyed and none has been opened since.
    bool IsDestroyed();

    // These take no mutex: in a forked child, a thread that exists no more may hold it.
    bool IsRunning() const { return isRunning_; }
    // Whether another process opened them. Their tear-down is that process's alone.
    bool BelongToParent() const;

private:
    using Sessions = std::map<uint32_t, ppc::PpcSessionRef>;
    enum class Outcome { kFound, kConnected, kConnectFailed, kRefused };
    struct Opened {
        Outcome outcome;
        ppc::PpcSessionRef session;
    };

    ppc::PpcSessionRef Find(uint32_t key);
    Opened FindOrConnect(uint32_t key, AfterDestroy afterDestroy);
    bool TakeAll(Sessions* taken);

    Mutex mutex_;
    Sessions sessions_ GAKPPC_GUARDED_BY(mutex_);
    bool isDestroyed_ GAKPPC_GUARDED_BY(mutex_) = false;
    std::atomic<bool> isRunning_{false};  // written under the mutex, as the next one
    std::atomic<pid_t> owner_{0};         // the process that opened the sessions, 0 before
};

}  // namespace qel

#endif
