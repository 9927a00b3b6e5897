#include "osal.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

thread_local int rememberedTid = 0;  // 0: not known

void ForgetTid()
{
    rememberedTid = 0;
}

// The thread of a forked child is another one. Without the handler nothing is remembered.
const bool forgottenInChild = pthread_atfork(nullptr, nullptr, ForgetTid) == 0;

}  // namespace

int osalGetTid(void)
{
    if (rememberedTid != 0) {
        return rememberedTid;
    }
    const auto tid = static_cast<int>(syscall(SYS_gettid));
    if (forgottenInChild) {
        rememberedTid = tid;
    }
    return tid;
}
