#include "library_thread.h"

#include <pthread.h>

#include <csignal>
#include <utility>

namespace qel {
namespace {

// Blocks all signals but those that a thread's own instructions raise, for the length of a scope. A thread that is
// started meanwhile inherits the mask.
class AsynchronousSignalsBlocked {
public:
    AsynchronousSignalsBlocked()
    {
        sigset_t asynchronous;
        sigfillset(&asynchronous);
        for (const int synchronous : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGABRT}) {
            sigdelset(&asynchronous, synchronous);
        }
        pthread_sigmask(SIG_BLOCK, &asynchronous, &previous_);
    }
    ~AsynchronousSignalsBlocked() { pthread_sigmask(SIG_SETMASK, &previous_, nullptr); }
    AsynchronousSignalsBlocked(const AsynchronousSignalsBlocked&) = delete;
    AsynchronousSignalsBlocked& operator=(const AsynchronousSignalsBlocked&) = delete;

private:
    sigset_t previous_;
};

}  // namespace

std::thread StartLibraryThread(std::function<void()> body)
{
    const AsynchronousSignalsBlocked blocked;
    return std::thread(std::move(body));
}

}  // namespace qel
