// The system calls on sockets, in front of the real ones. A call that would block is made when the scheduler finds that
// it would not. Paths stand for names in the abstract namespace that only this run knows, so that runs disturb neither
// each other nor the machine.

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "memory_checker.h"
#include "scheduler.h"
#include "socket_limits.h"

namespace gaktest {

SocketLimits socketLimits;

}  // namespace gaktest

namespace {

using gaktest::Access;
using gaktest::Need;
using gaktest::Op;
using gaktest::self;

#define HERE gaktest::PlaceOf(__builtin_return_address(0))

// ---- Descriptors ----

void UseDescriptor(int fd, uintptr_t place)
{
    if (fd >= 0) {
        gaktest::CheckAccess(gaktest::DescriptorAddress(fd), 1, Access::kRead, place);
    }
}

// A scheduling point before a call on `fd`.
void BeginCall(Op op, int fd, uintptr_t place, Need need = Need::kNothing)
{
    gaktest::Do({op, place, nullptr, fd, fd < 0 ? Need::kNothing : need});
    UseDescriptor(fd, place);
}

// Passes on the result of a call on `fd`.
template <typename Result>
Result EndCall(int fd, Result result)
{
    if (result == -1 && errno == EBADF && fd >= 0) {
        gaktest::Found("thread %d uses descriptor %d, which is not open", self->id, fd);
    }
    gaktest::SocketChanged();
    return result;
}

int Opened(int fd, uintptr_t place)
{
    if (self != nullptr && fd >= 0) {
        if (gaktest::socketLimits.smallBuffers) {
            const int smallest = 1;
            setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &smallest, sizeof(smallest));
        }
        gaktest::ForgetMemory(gaktest::DescriptorAddress(fd), 1);
        gaktest::CheckAccess(gaktest::DescriptorAddress(fd), 1, Access::kWrite, place);
    }
    return fd;
}

// A thread that is about to make a call on the descriptor, or waits in one, would make it on another socket next.
void CheckNobodyIsInside(int fd)
{
    for (int id = 0; id < gaktest::ThreadCount(); ++id) {
        const gaktest::Thread& thread = gaktest::ThreadAt(id);
        const bool isSocketCall = thread.step.op >= Op::kSocket && thread.step.op <= Op::kClose;
        if (&thread != self && thread.alive && isSocketCall && thread.step.number == fd) {
            gaktest::Found("descriptor %d is closed by thread %d while thread %d is in %s on it", fd, self->id, id,
                           gaktest::NameOf(thread.step.op));
        }
    }
}

// ---- Names ----

constexpr int kNames = 4;

// Unlinking a path and binding it again makes a new socket; the old one can no longer be reached.
struct Name {
    char path[sizeof(sockaddr_un::sun_path)];
    int generation;
};

Name names[kNames];

Name& NameAt(const char* path)
{
    for (Name& name : names) {
        if (name.path[0] == '\0') {
            strcpy(name.path, path);
        }
        if (strcmp(name.path, path) == 0) {
            return name;
        }
    }
    gaktest::Found("the run uses more than %d socket paths", kNames);
}

// Of the first process that asks, so that forked children know the names as well.
pid_t RunId()
{
    static const pid_t id = getpid();
    return id;
}

bool IsSocketPath(const char* path)
{
    constexpr char kDirectory[] = "/home/KrovaUser/";
    return strncmp(path, kDirectory, sizeof(kDirectory) - 1) == 0;
}

socklen_t Translate(const sockaddr* address, sockaddr_un& translated)
{
    const Name& name = NameAt(reinterpret_cast<const sockaddr_un*>(address)->sun_path);
    const char* file = strrchr(name.path, '/');
    translated = {};
    translated.sun_family = AF_UNIX;
    const int length = snprintf(translated.sun_path + 1, sizeof(translated.sun_path) - 1, "gakppc-schedule/%d/%s/%d",
                                RunId(), file == nullptr ? name.path : file + 1, name.generation);
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + static_cast<size_t>(length));
}

// ---- Calls that block ----

int TryConnect(int fd, const sockaddr* address, socklen_t length)
{
    const auto flags = static_cast<int>(syscall(SYS_fcntl, fd, F_GETFL));
    syscall(SYS_fcntl, fd, F_SETFL, flags | O_NONBLOCK);
    const auto result = static_cast<int>(syscall(SYS_connect, fd, address, length));
    const int error = errno;
    syscall(SYS_fcntl, fd, F_SETFL, flags);
    errno = error;
    return result;
}

constexpr int kMostEntries = 4;

// Passes over `count` bytes.
void Advance(msghdr& message, size_t count)
{
    while (message.msg_iovlen > 0 && count >= message.msg_iov->iov_len) {
        count -= message.msg_iov->iov_len;
        ++message.msg_iov;
        --message.msg_iovlen;
    }
    if (message.msg_iovlen > 0) {
        message.msg_iov->iov_base = static_cast<char*>(message.msg_iov->iov_base) + count;
        message.msg_iov->iov_len -= count;
    }
}

// As much of the message as the kernel takes at once.
ssize_t SendPiece(int fd, const msghdr& message, int flags)
{
    iovec pieces[kMostEntries];
    msghdr limited = message;
    size_t room = gaktest::socketLimits.largestPiece;
    if (room != 0) {
        limited.msg_iov = pieces;
        for (size_t entry = 0; entry < message.msg_iovlen; ++entry) {
            pieces[entry] = message.msg_iov[entry];
            pieces[entry].iov_len = pieces[entry].iov_len < room ? pieces[entry].iov_len : room;
            room -= pieces[entry].iov_len;
        }
    }
    return syscall(SYS_sendmsg, fd, &limited, flags | MSG_DONTWAIT);
}

// Sends all, as a blocking call does: part of it only when the socket is ended meanwhile.
ssize_t SendAll(int fd, msghdr message, int flags, uintptr_t place)
{
    ssize_t total = 0;
    BeginCall(Op::kSend, fd, place);
    for (;;) {
        const ssize_t sent = SendPiece(fd, message, flags);
        if (sent == -1 && errno == EAGAIN) {
            BeginCall(Op::kSend, fd, place, Need::kSocketChange);
            continue;
        }
        if (sent == -1) {
            return EndCall(fd, total > 0 ? total : sent);
        }
        total += sent;
        Advance(message, static_cast<size_t>(sent));
        EndCall(fd, sent);
        if (message.msg_iovlen == 0) {
            return total;
        }
        flags |= MSG_NOSIGNAL;  // the signal is raised only when nothing was sent
        BeginCall(Op::kSend, fd, place);
    }
}

}  // namespace

extern "C" {

int socket(int domain, int type, int protocol)
{
    if (self == nullptr) {
        return static_cast<int>(syscall(SYS_socket, domain, type, protocol));
    }
    gaktest::Do({Op::kSocket, HERE});
    return Opened(static_cast<int>(syscall(SYS_socket, domain, type, protocol)), HERE);
}

int bind(int fd, const sockaddr* address, socklen_t length)
{
    sockaddr_un translated;
    length = Translate(address, translated);
    if (self == nullptr) {
        return static_cast<int>(syscall(SYS_bind, fd, &translated, length));
    }
    BeginCall(Op::kBind, fd, HERE);
    return EndCall(fd, static_cast<int>(syscall(SYS_bind, fd, &translated, length)));
}

int unlink(const char* path) noexcept
{
    if (IsSocketPath(path)) {
        ++NameAt(path).generation;
        return 0;
    }
    return static_cast<int>(syscall(SYS_unlinkat, AT_FDCWD, path, 0));
}

int access(const char* path, int mode) noexcept
{
    return IsSocketPath(path) ? 0 : static_cast<int>(syscall(SYS_faccessat, AT_FDCWD, path, mode));
}

int listen(int fd, int backlog) noexcept
{
    if (self != nullptr) {
        BeginCall(Op::kListen, fd, HERE);
    }
    return static_cast<int>(syscall(SYS_listen, fd, backlog));
}

int accept(int fd, sockaddr* address, socklen_t* length)
{
    if (self == nullptr) {
        return static_cast<int>(syscall(SYS_accept4, fd, address, length, 0));
    }
    BeginCall(Op::kAccept, fd, HERE, Need::kReadable);
    return Opened(EndCall(fd, static_cast<int>(syscall(SYS_accept4, fd, address, length, 0))), HERE);
}

int connect(int fd, const sockaddr* address, socklen_t length)
{
    sockaddr_un translated;
    length = Translate(address, translated);
    if (self == nullptr) {
        return static_cast<int>(syscall(SYS_connect, fd, &translated, length));
    }
    BeginCall(Op::kConnect, fd, HERE);
    int result = TryConnect(fd, reinterpret_cast<sockaddr*>(&translated), length);
    while (result == -1 && errno == EAGAIN) {
        BeginCall(Op::kConnect, fd, HERE, Need::kSocketChange);
        result = TryConnect(fd, reinterpret_cast<sockaddr*>(&translated), length);
    }
    return EndCall(fd, result);
}

ssize_t recv(int fd, void* buffer, size_t size, int flags)
{
    if (self == nullptr) {
        return syscall(SYS_recvfrom, fd, buffer, size, flags, nullptr, nullptr);
    }
    BeginCall(Op::kReceive, fd, HERE, Need::kReadable);
    return EndCall(fd, syscall(SYS_recvfrom, fd, buffer, size, flags | MSG_DONTWAIT, nullptr, nullptr));
}

ssize_t send(int fd, const void* buffer, size_t size, int flags)
{
    if (self == nullptr) {
        return syscall(SYS_sendto, fd, buffer, size, flags, nullptr, 0);
    }
    iovec entry = {const_cast<void*>(buffer), size};
    msghdr message = {};
    message.msg_iov = &entry;
    message.msg_iovlen = 1;
    return SendAll(fd, message, flags, HERE);
}

ssize_t writev(int fd, const iovec* entries, int count)
{
    if (self == nullptr) {
        return syscall(SYS_writev, fd, entries, count);
    }
    iovec copies[kMostEntries];
    if (count > kMostEntries) {
        gaktest::Found("writev with %d entries", count);
    }
    memcpy(copies, entries, sizeof(iovec) * static_cast<size_t>(count));
    msghdr message = {};
    message.msg_iov = copies;
    message.msg_iovlen = static_cast<size_t>(count);
    return SendAll(fd, message, 0, HERE);
}

// A timeout may always come first.
int poll(pollfd* descriptors, nfds_t count, int timeout)
{
    if (self == nullptr) {
        return static_cast<int>(syscall(SYS_poll, descriptors, count, timeout));
    }
    BeginCall(Op::kPoll, count == 1 ? descriptors[0].fd : -1, HERE, timeout < 0 ? Need::kReadable : Need::kNothing);
    return static_cast<int>(syscall(SYS_poll, descriptors, count, 0));
}

int shutdown(int fd, int how) noexcept
{
    if (self == nullptr) {
        return static_cast<int>(syscall(SYS_shutdown, fd, how));
    }
    BeginCall(Op::kShutdown, fd, HERE);
    return EndCall(fd, static_cast<int>(syscall(SYS_shutdown, fd, how)));
}

int close(int fd)
{
    if (self == nullptr) {
        return static_cast<int>(syscall(SYS_close, fd));
    }
    BeginCall(Op::kClose, fd, HERE);
    if (fd >= 0) {
        CheckNobodyIsInside(fd);
        gaktest::CheckFree(gaktest::DescriptorAddress(fd), 1, HERE);
    }
    return EndCall(fd, static_cast<int>(syscall(SYS_close, fd)));
}

int fcntl(int fd, int command, ...)
{
    va_list arguments;
    va_start(arguments, command);
    const long argument = va_arg(arguments, long);
    va_end(arguments);
    const auto result = static_cast<int>(syscall(SYS_fcntl, fd, command, argument));
    if (self != nullptr) {
        UseDescriptor(fd, HERE);
    }
    return command == F_DUPFD || command == F_DUPFD_CLOEXEC ? Opened(result, HERE) : result;
}

}  // extern "C"
