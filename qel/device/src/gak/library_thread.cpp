#include "library_thread.h"

#include <pthread.h>

#include <csignal>
#include <utility>

namespace qel {
namespace {

// The mask below is that of a library thread for its whole life.
thread_local bool isLibraryThread = false;

// Blocks all signals but those that a thread's own instructions raise, for the length of a scope. A thread that is
// started meanwhile inherits the mask.
class AsynchronousSignalsBlocked {
public:
    AsynchronousSignalsBlocked()
    {
        if (isLibraryThread) {
            return;
        }
        sigset_t asynchronous;
        sigfillset(&asynchronous);
        for (const int synchronous : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGABRT}) {
            sigdelset(&asynchronous, synchronous);
        }
        pthread_sigmask(SIG_BLOCK, &asynchronous, &previous_);
    }
    ~AsynchronousSignalsBlocked()
    {
        if (!isLibraryThread) {
            pthread_sigmask(SIG_SETMASK, &previous_, nullptr);
        }
    }
    AsynchronousSignalsBlocked(const AsynchronousSignalsBlocked&) = delete;
    AsynchronousSignalsBlocked& operator=(const AsynchronousSignalsBlocked&) = delete;

private:
    sigset_t previous_;
};

}  // namespace

std::thread StartLibraryThread(std::function<void()> body)
{
    const AsynchronousSignalsBlocked blocked;
    return std::thread([body = std::move(body)] {
        isLibraryThread = true;
        body();
    });
}

}  // namespace qel
