#ifndef GAKPPC_PPC_SERVER_STATE_H
#define GAKPPC_PPC_SERVER_STATE_H

#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "handler_table.h"
#include "mutex.h"
#include "no_destructor.h"
#include "ppc_record.h"
#include "ppc_server.h"
#include "receive_threads.h"
#include "session_list.h"
#include "session_table.h"

namespace qel {

// For the log lines of the server, whichever file they come from.
constexpr char kSourcePath[] = "qel/device/src/gak/ppc_server.cpp";

// Who creates or destroys the server; one call at a time. Others wait for its end, but not for a mutex: destroying
// joins threads, and no mutex is held meanwhile.
class GAKPPC_CAPABILITY("life cycle") LifeCycle {
public:
    void Begin() GAKPPC_ACQUIRE()
    {
        MutexLock lock(mutex_);
        while (isChanging_) {
            ended_.Wait(mutex_);
        }
        isChanging_ = true;
    }
    void End() GAKPPC_RELEASE()
    {
        MutexLock lock(mutex_);
        isChanging_ = false;
        ended_.NotifyAll();
    }

private:
    Mutex mutex_;
    CondVar ended_;
    bool isChanging_ GAKPPC_GUARDED_BY(mutex_) = false;
};

class GAKPPC_SCOPED_CAPABILITY LifeCycleChange {
public:
    explicit LifeCycleChange(LifeCycle& lifeCycle) GAKPPC_ACQUIRE(lifeCycle) : lifeCycle_(lifeCycle)
    {
        lifeCycle_.Begin();
    }
    ~LifeCycleChange() GAKPPC_RELEASE() { lifeCycle_.End(); }
    LifeCycleChange(const LifeCycleChange&) = delete;
    LifeCycleChange& operator=(const LifeCycleChange&) = delete;

private:
    LifeCycle& lifeCycle_;
};

struct PpcServer::State {
    static State& Instance()
    {
        static NoDestructor<State> state;
        return *state;
    }

    // Self-synchronised.
    std::atomic<void*> server{nullptr};  // changes with the life cycle; null means that no server exists
    std::atomic<uint32_t> serverId{0};
    std::atomic<pid_t> owner{0};  // the process that created the server
    SessionList sessions;
    SessionTable sessionTable;
    HandlerTable handlers;
    ReceiveThreads receiveThreads;

    LifeCycle lifeCycle;
    std::thread acceptThread GAKPPC_GUARDED_BY(lifeCycle);

    Mutex flagMutex;  // setting serverRecvFlag_ and clearing both flags

    bool BelongsToParent() const { return server != nullptr && owner != getpid(); }

    uint32_t StartAccepting(PpcServer& ppcServer) GAKPPC_REQUIRES(lifeCycle);

    // Does nothing and returns false when the server is being destroyed.
    bool SetRecvFlag();
    void ClearFlags();

    bool AddPending(void* session);
    void CloseListedSessions();
    ppc::PpcSessionRef GetPpcSession(uint32_t deviceId, uint32_t subProcPid);
};

}  // namespace qel

#endif
