// Preloaded into the programs of the tests (scripts/under-load --slow-threads), it makes every other thread slow: such
// a thread waits now and then, for up to a third of a second, before or after it uses a socket or removes one's file. A
// test in which one thread or process relies on another one's speed fails soon.

#include <dlfcn.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <random>

namespace {

class Pace {
public:
    Pace()
    {
        unsigned seed = 0;
        getentropy(&seed, sizeof(seed));
        random_.seed(seed);
        isSlow_ = random_() % 2 == 0;
    }

    void MayWait()
    {
        if (!isSlow_ || random_() % kOdds != 0) {
            return;
        }
        const int error = errno;
        const timespec time{0, static_cast<long>(random_() % kLongestNs)};
        syscall(SYS_nanosleep, &time, nullptr);  // a program may have replaced the function
        errno = error;
    }

private:
    static constexpr unsigned kOdds = 5;
    static constexpr unsigned kLongestNs = 300'000'000;

    std::minstd_rand random_;
    bool isSlow_ = false;
};

thread_local Pace pace;

template <typename Function, typename... Args>
auto CallSlowly(Function* function, Args... args)
{
    pace.MayWait();
    const auto result = function(args...);
    pace.MayWait();
    return result;
}

template <typename Function>
Function* Next(const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {

int accept4(int fd, sockaddr* address, socklen_t* size, int flags)
{
    static auto* const next = Next<decltype(accept4)>("accept4");
    return CallSlowly(next, fd, address, size, flags);
}

int connect(int fd, const sockaddr* address, socklen_t size)
{
    static auto* const next = Next<decltype(connect)>("connect");
    return CallSlowly(next, fd, address, size);
}

int bind(int fd, const sockaddr* address, socklen_t size) noexcept
{
    static auto* const next = Next<decltype(bind)>("bind");
    return CallSlowly(next, fd, address, size);
}

int listen(int fd, int queue) noexcept
{
    static auto* const next = Next<decltype(listen)>("listen");
    return CallSlowly(next, fd, queue);
}

int shutdown(int fd, int how) noexcept
{
    static auto* const next = Next<decltype(shutdown)>("shutdown");
    return CallSlowly(next, fd, how);
}

ssize_t send(int fd, const void* bytes, size_t size, int flags)
{
    static auto* const next = Next<decltype(send)>("send");
    return CallSlowly(next, fd, bytes, size, flags);
}

ssize_t sendmsg(int fd, const msghdr* message, int flags)
{
    static auto* const next = Next<decltype(sendmsg)>("sendmsg");
    return CallSlowly(next, fd, message, flags);
}

ssize_t recv(int fd, void* bytes, size_t size, int flags)
{
    static auto* const next = Next<decltype(recv)>("recv");
    return CallSlowly(next, fd, bytes, size, flags);
}

ssize_t recvmsg(int fd, msghdr* message, int flags)
{
    static auto* const next = Next<decltype(recvmsg)>("recvmsg");
    return CallSlowly(next, fd, message, flags);
}

int poll(pollfd* events, nfds_t count, int timeoutMs)
{
    static auto* const next = Next<decltype(poll)>("poll");
    return CallSlowly(next, events, count, timeoutMs);
}

int unlink(const char* path) noexcept
{
    static auto* const next = Next<decltype(unlink)>("unlink");
    return CallSlowly(next, path);
}

}  // extern "C"
