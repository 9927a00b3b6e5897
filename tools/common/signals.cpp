#include "signals.h"

#include <pthread.h>
#include <sys/signalfd.h>

#include <cerrno>
#include <cstring>

#include "exit_error.h"

namespace tools {

SignalFd::SignalFd(std::initializer_list<int> signals)
{
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : signals) {
        sigaddset(&set, signal);
    }
    pthread_sigmask(SIG_BLOCK, &set, &formerMask_);
    fd_.Reset(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!fd_.valid()) {
        throw ExitError(kExitFailed, std::string("signalfd: ") + strerror(errno));
    }
}

int SignalFd::Next()
{
    signalfd_siginfo info{};
    ssize_t size = 0;
    do {
        size = read(fd_.get(), &info, sizeof(info));
    } while (size == -1 && errno == EINTR);
    return size == sizeof(info) ? static_cast<int>(info.ssi_signo) : 0;
}

}  // namespace tools
