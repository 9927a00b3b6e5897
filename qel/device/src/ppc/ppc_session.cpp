#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "ppc.h"
#include "ppc_log.h"
#include "ppc_record.h"
#include "ppc_types.h"
#include "tracepoints.h"

// NOLINTBEGIN(concurrency-mt-unsafe): what it finds is strerror, whose text glibc keeps for each thread

namespace {

using ppc::CreateRecord;
using ppc::OwnFd;
using ppc::PpcCall;
using ppc::PpcRecord;
using ppc::PpcRecordRef;

constexpr int kBacklog = 10;
constexpr socklen_t kPeerAddressLength = 110;
constexpr int kExhaustedPauseMs = 10;

// Takes over a descriptor that a system call has given, or its failure. The processes that the daemon starts inherit
// none. A process that was started without its standard descriptors must not get a socket as one of them: what it wrote
// there would be read as frames. Empty, with errno set, when there is no other number.
OwnFd TakeOver(int fd)
{
    OwnFd taken(fd);
    if (fd > STDERR_FILENO) {
        fcntl(fd, F_SETFD, FD_CLOEXEC);
    } else if (fd >= 0) {
        taken = OwnFd(fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    }
    return taken;
}

// A socket, and the address of a server.
struct ServerSocket {
    OwnFd fd;
    sockaddr_un addr = {};
    uint32_t addrLen = 0;
};

int OpenServerSocket(int serverId, ServerSocket* opened, ppc::CallSite site)
{
    opened->fd = TakeOver(socket(AF_UNIX, SOCK_STREAM, 0));
    if (opened->fd.Get() < 0) {
        PPC_ERROR(PPC_TEXT_AT(site, "create ppc socket error: %s(errno: %d)"), strerror(errno), errno);
        return PPC_ERR_SOCKET_CREATE;
    }
    opened->addr.sun_family = AF_UNIX;
    return drvPpcSetSockPath(&opened->addr, 1, serverId, &opened->addrLen) == PPC_OK ? PPC_OK : PPC_ERR_SOCKET_PATH;
}

// When descriptors or memory have run out, clients stay queued and accept fails again at once. A short pause keeps the
// caller's loop from filling a processor and the log. Ends early when the endpoint is shut down.
void PauseIfExhausted(int error, int listenFd)
{
    if (error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM) {
        pollfd endpoint = {listenFd, 0, 0};  // no event asked for: only a shutdown ends the pause
        poll(&endpoint, 1, kExhaustedPauseMs);
    }
}

OwnFd AcceptPeer(int listenFd)
{
    sockaddr_storage peer;
    int fd;
    do {
        socklen_t length = kPeerAddressLength;
        fd = accept(listenFd, reinterpret_cast<sockaddr*>(&peer), &length);
    } while (fd == -1 && errno == EINTR);
    return TakeOver(fd);
}

int ConnectToServer(const ServerSocket& socket)
{
    int result;
    do {
        result = connect(socket.fd.Get(), reinterpret_cast<const sockaddr*>(&socket.addr), socket.addrLen);
    } while (result == -1 && errno == EINTR);
    return result;
}

void LogRecordFailure(int code, int error, const char* mallocText, ppc::CallSite site)
{
    if (code == PPC_ERR_NO_MEMORY) {
        PPC_ERROR(PPC_TEXT_AT(site, "%s"), mallocText);
    } else {
        PPC_ERROR(PPC_LINE_AT(site, "memset_s error: %s.", "\n"), strerror(error));
    }
}

// The process at the other end when the connection was made; 0 when it cannot be told.
pid_t PeerPid(int fd)
{
    ucred peer = {};
    socklen_t length = sizeof(peer);
    return getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0 ? peer.pid : 0;
}

// Of a session whose descriptor may be closed at any time.
pid_t PeerPid(PpcRecord* record)
{
    const PpcCall call(record);
    return PeerPid(call.Fd());
}

// Ends a session for its owner, whose reference passes to the caller. Empty when it is not open.
PpcRecordRef EndSession(PpcSession* session, ppc::CallSite site)
{
    if (session == nullptr) {
        PPC_ERROR(PPC_TEXT_AT(site, "null session"));
        return PpcRecordRef();
    }
    PpcRecordRef record = PpcRecord::MarkEnded(PpcRecord::Kind::kSession, session);
    if (!record) {
        PPC_ERROR(PPC_TEXT_AT(site, "session %p is not open"), static_cast<void*>(session));
        return record;
    }
    GAKPPC_TRACE(session_ended, record->OriginalFd(), PeerPid(record.Get()));
    return record;
}

}  // namespace

int drvPpcServerCreate(int serverId, PpcServerHead** ppServer)
{
    if (ppServer == nullptr) {
        PPC_ERROR(PPC_TEXT("invalid input, null ptr"));
        return PPC_ERR_INVALID_VALUE;
    }
    ServerSocket socket;
    int code = OpenServerSocket(serverId, &socket, PPC_CALL_SITE);
    if (code != PPC_OK) {
        return code;
    }
    unlink(socket.addr.sun_path);
    if (bind(socket.fd.Get(), reinterpret_cast<sockaddr*>(&socket.addr), socket.addrLen) != 0) {
        PPC_ERROR(PPC_TEXT("bind ppc socket error: %s(errno: %d) server_pid %d"), strerror(errno), errno, serverId);
        return PPC_ERR_SOCKET_BIND;
    }
    if (listen(socket.fd.Get(), kBacklog) != 0) {
        PPC_ERROR(PPC_TEXT("listen ppc socket error: %s(errno: %d)"), strerror(errno), errno);
        return PPC_ERR_SOCKET_LISTEN;
    }
    const int listenFd = socket.fd.Get();
    PpcServerHead* server = nullptr;
    code = CreateRecord(PpcRecord::Kind::kServer, socket.fd, &server);
    if (code != PPC_OK) {
        LogRecordFailure(code, errno, "ppc server malloc failed", PPC_CALL_SITE);
        return code;
    }
    PPC_INFO(PPC_TEXT("Ppc Server Create %d, pid %d"), listenFd, serverId);
    *ppServer = server;
    return PPC_OK;
}

int drvPpcServerDestroy(PpcServerHead* server)
{
    if (server == nullptr) {
        PPC_ERROR(PPC_TEXT("null server"));
        return PPC_ERR_INVALID_VALUE;
    }
    const PpcRecordRef record = PpcRecord::MarkEnded(PpcRecord::Kind::kServer, server);
    if (!record) {
        PPC_ERROR(PPC_TEXT("server %p is not open"), static_cast<void*>(server));
        return PPC_ERR_INVALID_VALUE;
    }
    PPC_INFO(PPC_TEXT("Ppc Destory Server listenFd %d pHead %p, pid %d"), record->OriginalFd(),
             static_cast<void*>(server), getpid());
    record->Revoke();
    return PPC_OK;
}

int drvPpcSessionAccept(PpcServerHead* server, PpcSession** ppSession)
{
    const PpcRecordRef record = PpcRecord::Acquire(PpcRecord::Kind::kServer, server);
    if (!record || ppSession == nullptr) {
        PPC_WARN(PPC_TEXT("Server socket closed or invalid argument!"));
        return PPC_ERR_INVALID_VALUE;
    }
    const PpcCall call(record.Get());
    OwnFd fd = AcceptPeer(call.Fd());
    if (fd.Get() < 0) {
        const int error = errno;
        if (call.Fd() == -1 || record->PublicFd() == -1) {
            PPC_WARN(PPC_TEXT("Server socket closed pHead %p"), static_cast<void*>(server));
            return PPC_ERR_SOCKET_CLOSED;
        }
        PPC_ERROR(PPC_TEXT("accept ppc socket error: %s(errno: %d) pHead->listenFd %d pHead %p"), strerror(error),
                  error, call.Fd(), static_cast<void*>(server));
        PauseIfExhausted(error, call.Fd());
        return PPC_ERR_SOCKET_ACCEPT;
    }
    PPC_INFO(PPC_TEXT("Ppc Accept Session %d, Server fd %d, pid %d"), fd.Get(), call.Fd(), getpid());
    const int sessionFd = fd.Get();
    const int code = CreateRecord(PpcRecord::Kind::kSession, fd, ppSession);
    if (code == PPC_OK) {
        GAKPPC_TRACE(session_opened, sessionFd, PeerPid(sessionFd));
    } else {
        if (code == PPC_ERR_INVALID_VALUE) {
            fd = OwnFd();  // unlike the others, this failure is logged after the close
        }
        LogRecordFailure(code, errno, "ppc server session malloc failed", PPC_CALL_SITE);
    }
    return code;
}

int drvPpcSessionClose(PpcSession* session)
{
    const PpcRecordRef record = EndSession(session, PPC_CALL_SITE);
    if (!record) {
        return PPC_ERR_INVALID_VALUE;
    }
    const int fd = record->PublicFd();
    record->Revoke();
    PPC_INFO(PPC_TEXT("Ppc Close session fd %d, pid %d session %p"), fd, getpid(), static_cast<void*>(session));
    return PPC_OK;
}

int drvPpcClientCreate(void** ppClient, int, int)
{
    if (ppClient == nullptr) {
        PPC_ERROR(PPC_TEXT("invalid input, nullptr"));
        return PPC_ERR_INVALID_VALUE;
    }
    return PPC_OK;
}

int drvPpcClientDestroy(void* client)
{
    if (client == nullptr) {
        PPC_ERROR(PPC_TEXT("invalid input, nullptr"));
        return PPC_ERR_INVALID_VALUE;
    }
    return PPC_OK;
}

int drvPpcSessionConnect(int serverId, PpcSession** ppSession)
{
    if (ppSession == nullptr) {
        PPC_ERROR(PPC_TEXT("invalid input, null ptr"));
        return PPC_ERR_INVALID_VALUE;
    }
    ServerSocket socket;
    int code = OpenServerSocket(serverId, &socket, PPC_CALL_SITE);
    if (code != PPC_OK) {
        return code;
    }
    if (ConnectToServer(socket) != 0) {
        const int error = errno;
        PPC_WARN(PPC_TEXT("connect ppc socket error: %s(errno: %d), server pid %d"), strerror(error), error, serverId);
        return PPC_ERR_SOCKET_CONNECT;
    }
    const int sessionFd = socket.fd.Get();
    PpcSession* session = nullptr;
    code = CreateRecord(PpcRecord::Kind::kSession, socket.fd, &session);
    if (code != PPC_OK) {
        LogRecordFailure(code, errno, "ppc session malloc failed", PPC_CALL_SITE);
        return code;
    }
    PPC_INFO(PPC_TEXT("Ppc connect session %d, pid %d"), sessionFd, getpid());
    GAKPPC_TRACE(session_opened, sessionFd, PeerPid(sessionFd));
    *ppSession = session;
    return PPC_OK;
}

int drvPpcSessionDestroy(PpcSession* session)
{
    const PpcRecordRef record = EndSession(session, PPC_CALL_SITE);
    if (!record) {
        return PPC_ERR_INVALID_VALUE;
    }
    PPC_INFO(PPC_TEXT("Ppc Destroy session %d, pid %d"), record->PublicFd(), getpid());
    record->Revoke();
    return PPC_OK;
}

// NOLINTEND(concurrency-mt-unsafe)
