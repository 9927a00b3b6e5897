#ifndef GAKPPC_CUSTOM_START_H
#define GAKPPC_CUSTOM_START_H

#include "mutex.h"

namespace qel {

// The start of the custom process. Once it has been reported, waits return at once. Any thread may call any
// function.
class CustomStart {
public:
    void Report()
    {
        MutexLock lock(mutex_);
        isReported_ = true;
        reported_.NotifyAll();
    }

    void Wait()
    {
        MutexLock lock(mutex_);
        while (!isReported_) {
            reported_.Wait(mutex_);
        }
    }

private:
    Mutex mutex_;
    CondVar reported_;
    bool isReported_ GAKPPC_GUARDED_BY(mutex_) = false;
};

}  // namespace qel

#endif
