#include "ppc.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "memguard.h"
#include "ppc_record.h"
#include "sigpipe_guard.h"
#include "vlog.h"

// NOLINTBEGIN(concurrency-mt-unsafe): what it finds is strerror, whose text glibc keeps for each thread

// Visible parts of the records; a hidden part stands in front of each.

struct PpcSession {
    uint32_t magic;
    std::atomic<int32_t> fd;
    uint32_t room[6];
};

struct PpcServerHead {
    std::atomic<int32_t> listenFd;
    void* link;
};

struct PpcMsgBd {
    void* buffer;
    int32_t length;
};

struct PpcMsg {
    uint32_t count;
    PpcMsgBd bd;
    uint32_t room[6];
};

namespace {

using ppc::PpcCall;
using ppc::PpcRecord;

constexpr int kModuleId = 38;
constexpr int kLevelInfo = 1;
constexpr int kLevelWarn = 2;
constexpr char kSourcePath[] = "qel/device/src/ppc/ppc";

// Format and arguments of one log line; further arguments of the text may follow. A macro because the line number and
// the function are its user's.
#define PPC_LINE(text, end) "[%s:%d][%s:%d] >>> " text end, kSourcePath, __LINE__, __func__, __LINE__
#define PPC_TEXT(text) PPC_LINE(text, "\n\n")

// Errors are always written, warnings and information only when the sink says that their level is on.
#define PPC_ERROR(...) VlogErrorInner(kModuleId, __VA_ARGS__)
#define PPC_WARN(...) \
    do { \
        if (CheckLogLevel(kModuleId, kLevelWarn) == 1) { \
            VlogWarnInner(kModuleId, __VA_ARGS__); \
        } \
    } while (false)
#define PPC_INFO(...) \
    do { \
        if (CheckLogLevel(kModuleId, kLevelInfo) == 1) { \
            VlogInfoInner(kModuleId, __VA_ARGS__); \
        } \
    } while (false)

constexpr char kSocketDir[] = "/home/KrovaUser/qel_ppc/";
constexpr mode_t kSocketDirMode = 0350;
constexpr char kServerRole[] = "sock_server_";
constexpr char kClientRole[] = "sock_client_";
constexpr int kBacklog = 10;
constexpr socklen_t kPeerAddressLength = 110;
constexpr uint32_t kBufferCount = 1;
constexpr int kLengthFieldSize = 4;
constexpr int kExhaustedPauseMs = 10;

// The directory text once the directory is there; never cleared.
std::atomic<const char*> ppcSockDir{nullptr};

// A descriptor until somebody else owns it.
class OwnFd {
public:
    explicit OwnFd(int fd) : fd_(fd) {}
    ~OwnFd()
    {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    OwnFd(const OwnFd&) = delete;
    OwnFd& operator=(const OwnFd&) = delete;

    int Get() const { return fd_; }
    int Release() { return std::exchange(fd_, -1); }

private:
    int fd_;
};

// The processes that the daemon starts inherit none of the driver's descriptors.
void CloseOnExec(int fd)
{
    if (fd >= 0) {
        fcntl(fd, F_SETFD, FD_CLOEXEC);
    }
}

int OpenSocket()
{
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    CloseOnExec(fd);
    return fd;
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

int AcceptPeer(int listenFd)
{
    sockaddr_storage peer;
    int fd;
    do {
        socklen_t length = kPeerAddressLength;
        fd = accept(listenFd, reinterpret_cast<sockaddr*>(&peer), &length);
    } while (fd == -1 && errno == EINTR);
    CloseOnExec(fd);
    return fd;
}

int ConnectToServer(int fd, const sockaddr_un& addr, socklen_t addrLen)
{
    int result;
    do {
        result = connect(fd, reinterpret_cast<const sockaddr*>(&addr), addrLen);
    } while (result == -1 && errno == EINTR);
    return result;
}

// A driver record: what callers see, and in front of it what they don't.
template <typename Visible>
struct RecordBlock {
    PpcRecord hidden;
    Visible visible;
};

std::atomic<int32_t>& DescriptorOf(PpcSession& session)
{
    return session.fd;
}

std::atomic<int32_t>& DescriptorOf(PpcServerHead& server)
{
    return server.listenFd;
}

void FillIn(PpcSession& session, int fd)
{
    session.magic = PPC_SESSION_MAGIC;
    session.fd = fd;
}

void FillIn(PpcServerHead& server, int fd)
{
    server.listenFd = fd;
}

// Makes the record that owns `fd` from then on. PPC_ERR_NO_MEMORY or PPC_ERR_INVALID_VALUE (memset_s failed) leave
// both arguments as they are.
template <typename Visible>
int CreateRecord(PpcRecord::Kind kind, OwnFd& fd, Visible** created)
{
    using Block = RecordBlock<Visible>;
    static_assert(offsetof(Block, visible) == sizeof(PpcRecord), "the handle must follow the hidden part at once");
    void* memory = malloc(sizeof(Block));
    if (memory == nullptr) {
        return PPC_ERR_NO_MEMORY;
    }
    if (memset_s(memory, sizeof(Block), 0, sizeof(Block)) != 0) {
        free(memory);
        return PPC_ERR_INVALID_VALUE;
    }
    Block* block = static_cast<Block*>(memory);
    Visible* visible = new (&block->visible) Visible{};
    FillIn(*visible, fd.Get());
    PpcRecord* record = new (&block->hidden) PpcRecord(kind, fd.Release(), &DescriptorOf(*visible));
    record->Publish();
    *created = visible;
    return PPC_OK;
}

// Log line of a failed CreateRecord in `function`.
void LogRecordFailure(int code, const char* mallocText, const char* function, int line)
{
    if (code == PPC_ERR_NO_MEMORY) {
        PPC_ERROR("[%s:%d][%s:%d] >>> %s\n\n", kSourcePath, line, function, line, mallocText);
    } else {
        PPC_ERROR("[%s:%d][%s:%d] >>> memset_s error: %s.\n", kSourcePath, line, function, line, strerror(errno));
    }
}

// ---- Messages ----

// Hidden part in front of a message descriptor.
struct PpcMsgHead {
    uint8_t ownsBuffer;
};

struct MsgBlock {
    alignas(PpcMsg) PpcMsgHead hidden;
    PpcMsg visible;
};

MsgBlock* BlockOf(PpcMsg* msg)
{
    return reinterpret_cast<MsgBlock*>(reinterpret_cast<char*>(msg) - offsetof(MsgBlock, visible));
}

void FreeOwnedBuffer(PpcMsg* msg)
{
    if (BlockOf(msg)->hidden.ownsBuffer != 0) {
        free(msg->bd.buffer);
        msg->bd.buffer = nullptr;
    }
}

// ---- Frames ----

// recv that is not disturbed by signals.
ssize_t Receive(int fd, void* buf, size_t size, int flags)
{
    ssize_t received;
    do {
        received = recv(fd, buf, size, flags);
    } while (received == -1 && errno == EINTR);
    return received;
}

// One frame with one system call. The result is writev's, with its errno.
ssize_t WriteFrame(int fd, const void* buf, int len)
{
    uint32_t lengthField = htonl(static_cast<uint32_t>(len));
    iovec entries[2] = {{&lengthField, kLengthFieldSize}, {const_cast<void*>(buf), static_cast<size_t>(len)}};
    const ppc::SigpipeGuard guard;
    const ssize_t written = writev(fd, entries, 2);
    if (written == -1 && errno == EPIPE) {
        ppc::SigpipeGuard::Consume();
    }
    return written;
}

}  // namespace

// ---- Socket directory and paths ----

int ppcInit(void)
{
    return drvPpcCreateDir();
}

int drvPpcCreateDir(void)
{
    // A directory that somebody made between the two calls is as good as one that was there before.
    if (access(kSocketDir, F_OK) != 0 && mkdir(kSocketDir, kSocketDirMode) != 0 && errno != EEXIST) {
        PPC_ERROR(PPC_TEXT("create ppc dir failed, %s (errno:%d)"), strerror(errno), errno);
        return -1;
    }
    ppcSockDir = kSocketDir;
    return 0;
}

int drvPpcSetSockPath(struct sockaddr_un* addr, int isServer, int serverId, uint32_t* addrLen)
{
    if (addr == nullptr || addrLen == nullptr) {
        PPC_ERROR(PPC_TEXT("invalid input, null ptr"));
        return PPC_ERR_INVALID_VALUE;
    }
    const char* dir = ppcSockDir;
    const int length = dir == nullptr ? -1
                                      : sprintf_s(addr->sun_path, sizeof(addr->sun_path), "%s%s%d", dir,
                                                  isServer != 0 ? kServerRole : kClientRole, serverId);
    if (length == -1) {
        *addrLen = 0;
        PPC_ERROR(PPC_TEXT("Ppc set path sprintf_s failed"));
        return PPC_ERR_SOCKET_PATH;
    }
    *addrLen = static_cast<uint32_t>(length + offsetof(sockaddr_un, sun_path));
    return PPC_OK;
}

int drvPpcInit(void)
{
    return PPC_OK;
}

int drvPpcUninit(void)
{
    return PPC_OK;
}

// ---- Servers, clients and sessions ----

int drvPpcServerCreate(int serverId, PpcServerHead** ppServer)
{
    if (ppServer == nullptr) {
        PPC_ERROR(PPC_TEXT("invalid input, null ptr"));
        return PPC_ERR_INVALID_VALUE;
    }
    OwnFd fd(OpenSocket());
    if (fd.Get() < 0) {
        PPC_ERROR(PPC_TEXT("create ppc socket error: %s(errno: %d)"), strerror(errno), errno);
        return PPC_ERR_SOCKET_CREATE;
    }
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    uint32_t addrLen = 0;
    if (drvPpcSetSockPath(&addr, 1, serverId, &addrLen) != PPC_OK) {
        return PPC_ERR_SOCKET_PATH;
    }
    unlink(addr.sun_path);
    if (bind(fd.Get(), reinterpret_cast<sockaddr*>(&addr), addrLen) != 0) {
        PPC_ERROR(PPC_TEXT("bind ppc socket error: %s(errno: %d) server_pid %d"), strerror(errno), errno, serverId);
        return PPC_ERR_SOCKET_BIND;
    }
    if (listen(fd.Get(), kBacklog) != 0) {
        PPC_ERROR(PPC_TEXT("listen ppc socket error: %s(errno: %d)"), strerror(errno), errno);
        return PPC_ERR_SOCKET_LISTEN;
    }
    const int listenFd = fd.Get();
    PpcServerHead* server = nullptr;
    const int code = CreateRecord(PpcRecord::Kind::kServer, fd, &server);
    if (code != PPC_OK) {
        LogRecordFailure(code, "ppc server malloc failed", __func__, __LINE__);
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
    if (!PpcRecord::TakeFromOwner(PpcRecord::Kind::kServer, server)) {
        PPC_ERROR(PPC_TEXT("server %p is not open"), static_cast<void*>(server));
        return PPC_ERR_INVALID_VALUE;
    }
    PpcRecord* record = PpcRecord::Of(server);
    const ppc::PpcHolding holding(record);
    PPC_INFO(PPC_TEXT("Ppc Destory Server listenFd %d pHead %p, pid %d"), record->CreatedFd(),
             static_cast<void*>(server), getpid());
    record->Revoke();
    return PPC_OK;
}

int drvPpcSessionAccept(PpcServerHead* server, PpcSession** ppSession)
{
    if (server == nullptr || ppSession == nullptr || !PpcRecord::Hold(PpcRecord::Kind::kServer, server)) {
        PPC_WARN(PPC_TEXT("Server socket closed or invalid argument!"));
        return PPC_ERR_INVALID_VALUE;
    }
    PpcRecord* record = PpcRecord::Of(server);
    const ppc::PpcHolding holding(record);
    const PpcCall call(record);
    OwnFd fd(AcceptPeer(call.Fd()));
    if (fd.Get() < 0) {
        if (call.Fd() == -1 || record->ShownFd() == -1) {
            PPC_WARN(PPC_TEXT("Server socket closed pHead %p"), static_cast<void*>(server));
            return PPC_ERR_SOCKET_CLOSED;
        }
        const int error = errno;
        PPC_ERROR(PPC_TEXT("accept ppc socket error: %s(errno: %d) pHead->listenFd %d pHead %p"), strerror(error),
                  error, call.Fd(), static_cast<void*>(server));
        PauseIfExhausted(error, call.Fd());
        return PPC_ERR_SOCKET_ACCEPT;
    }
    PPC_INFO(PPC_TEXT("Ppc Accept Session %d, Server fd %d, pid %d"), fd.Get(), call.Fd(), getpid());
    const int code = CreateRecord(PpcRecord::Kind::kSession, fd, ppSession);
    if (code != PPC_OK) {
        LogRecordFailure(code, "ppc server session malloc failed", __func__, __LINE__);
    }
    return code;
}

int drvPpcSessionClose(PpcSession* session)
{
    if (session == nullptr) {
        PPC_ERROR(PPC_TEXT("null session"));
        return PPC_ERR_INVALID_VALUE;
    }
    if (!PpcRecord::TakeFromOwner(PpcRecord::Kind::kSession, session)) {
        PPC_ERROR(PPC_TEXT("session %p is not open"), static_cast<void*>(session));
        return PPC_ERR_INVALID_VALUE;
    }
    PpcRecord* record = PpcRecord::Of(session);
    const ppc::PpcHolding holding(record);
    const int fd = record->ShownFd();
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
    OwnFd fd(OpenSocket());
    if (fd.Get() < 0) {
        PPC_ERROR(PPC_TEXT("create ppc socket error: %s(errno: %d)"), strerror(errno), errno);
        return PPC_ERR_SOCKET_CREATE;
    }
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    uint32_t addrLen = 0;
    if (drvPpcSetSockPath(&addr, 1, serverId, &addrLen) != PPC_OK) {
        return PPC_ERR_SOCKET_PATH;
    }
    if (ConnectToServer(fd.Get(), addr, addrLen) != 0) {
        PPC_WARN(PPC_TEXT("connect ppc socket error: %s(errno: %d), server pid %d"), strerror(errno), errno, serverId);
        return PPC_ERR_SOCKET_CONNECT;
    }
    const int sessionFd = fd.Get();
    PpcSession* session = nullptr;
    const int code = CreateRecord(PpcRecord::Kind::kSession, fd, &session);
    if (code != PPC_OK) {
        LogRecordFailure(code, "ppc session malloc failed", __func__, __LINE__);
        return code;
    }
    PPC_INFO(PPC_TEXT("Ppc connect session %d, pid %d"), sessionFd, getpid());
    *ppSession = session;
    return PPC_OK;
}

int drvPpcSessionDestroy(PpcSession* session)
{
    if (session == nullptr) {
        PPC_ERROR(PPC_TEXT("null session"));
        return PPC_ERR_INVALID_VALUE;
    }
    if (!PpcRecord::TakeFromOwner(PpcRecord::Kind::kSession, session)) {
        PPC_ERROR(PPC_TEXT("session %p is not open"), static_cast<void*>(session));
        return PPC_ERR_INVALID_VALUE;
    }
    PpcRecord* record = PpcRecord::Of(session);
    const ppc::PpcHolding holding(record);
    PPC_INFO(PPC_TEXT("Ppc Destroy session %d, pid %d"), record->ShownFd(), getpid());
    record->Revoke();
    return PPC_OK;
}

// ---- Message descriptors and buffers ----

int drvPpcAllocMsg(PpcSession* session, PpcMsg** ppMsg, int count)
{
    if (session == nullptr) {
        PPC_ERROR(PPC_TEXT("null session"));
        return PPC_ERR_INVALID_VALUE;
    }
    if (session->magic != PPC_SESSION_MAGIC) {
        PPC_ERROR(PPC_TEXT("magic error(%#x)"), session->magic);
        return PPC_ERR_INVALID_VALUE;
    }
    if (ppMsg == nullptr) {
        PPC_ERROR(PPC_TEXT("null ppMsg"));
        return PPC_ERR_INVALID_VALUE;
    }
    if (count != static_cast<int>(kBufferCount)) {
        PPC_ERROR(PPC_TEXT("count just support 1, for future feature"));
        return PPC_ERR_INVALID_VALUE;
    }
    void* memory = malloc(sizeof(MsgBlock));
    if (memory == nullptr) {
        PPC_ERROR(PPC_TEXT("malloc fail"));
        return PPC_ERR_NO_MEMORY;
    }
    if (memset_s(memory, sizeof(MsgBlock), 0, sizeof(MsgBlock)) != 0) {
        free(memory);
        PPC_ERROR(PPC_LINE("memset_s error: %s.", "\n"), strerror(errno));
        return PPC_ERR_INVALID_VALUE;
    }
    MsgBlock* block = new (memory) MsgBlock;
    block->visible.count = kBufferCount;
    *ppMsg = &block->visible;
    return PPC_OK;
}

int drvPpcFreeMsg(PpcMsg* msg)
{
    if (msg == nullptr) {
        PPC_ERROR(PPC_TEXT("null pMsg"));
        return PPC_ERR_INVALID_VALUE;
    }
    if (msg->count != kBufferCount) {
        PPC_ERROR(PPC_TEXT("invalid pMsg->count %d"), static_cast<int>(msg->count));
        return PPC_ERR_INVALID_VALUE;
    }
    FreeOwnedBuffer(msg);
    free(BlockOf(msg));
    return PPC_OK;
}

int drvPpcReuseMsg(PpcMsg* msg)
{
    if (msg == nullptr) {
        PPC_ERROR(PPC_TEXT("null pMsg"));
        return PPC_ERR_INVALID_VALUE;
    }
    if (msg->count != kBufferCount) {
        PPC_ERROR(PPC_TEXT("invalid pMsg->count %d"), static_cast<int>(msg->count));
        return PPC_ERR_INVALID_VALUE;
    }
    FreeOwnedBuffer(msg);
    BlockOf(msg)->hidden.ownsBuffer = 0;
    msg->bd = PpcMsgBd{};
    return PPC_OK;
}

int drvPpcAddMsgBuffer(PpcMsg* msg, void* buf, int len)
{
    if (msg == nullptr) {
        PPC_ERROR(PPC_TEXT("null pMsg"));
        return PPC_ERR_INVALID_VALUE;
    }
    if (buf == nullptr) {
        PPC_ERROR(PPC_TEXT("null pBuf"));
        return PPC_ERR_INVALID_VALUE;
    }
    if (len < 1) {
        PPC_ERROR(PPC_TEXT("len(0) illegal"));
        return PPC_ERR_INVALID_VALUE;
    }
    if (msg->count != kBufferCount) {
        PPC_ERROR(PPC_TEXT("invalid pMsg->count %d"), static_cast<int>(msg->count));
        return PPC_ERR_INVALID_VALUE;
    }
    if (msg->bd.buffer != nullptr) {
        PPC_ERROR(PPC_TEXT("no available msg BD"));
        return PPC_ERR_NO_RESOURCE;
    }
    msg->bd.buffer = buf;
    msg->bd.length = len;
    return PPC_OK;
}

int drvPpcGetMsgBuffer(PpcMsg* msg, int index, void** ppBuf, uint32_t* pLen)
{
    if (msg == nullptr) {
        PPC_ERROR(PPC_TEXT("null pMsg"));
        return PPC_ERR_INVALID_VALUE;
    }
    if (ppBuf == nullptr) {
        PPC_ERROR(PPC_TEXT("null ppBuf"));
        return PPC_ERR_INVALID_VALUE;
    }
    if (pLen == nullptr) {
        PPC_ERROR(PPC_TEXT("null pLen"));
        return PPC_ERR_INVALID_VALUE;
    }
    if (index != 0) {
        PPC_ERROR(PPC_TEXT("index just support 1, for future feature"));
        return PPC_ERR_INVALID_VALUE;
    }
    *ppBuf = msg->bd.buffer;
    *pLen = static_cast<uint32_t>(msg->bd.length);
    return PPC_OK;
}

// ---- Framed socket I/O ----

int drvPpcSocketSend(int fd, const void* buf, int len)
{
    if (buf == nullptr) {
        PPC_ERROR(PPC_TEXT("null buf"));
        return PPC_ERR_INVALID_VALUE;
    }
    const ssize_t frameSize = static_cast<ssize_t>(len) + kLengthFieldSize;
    const ssize_t written = WriteFrame(fd, buf, len);
    if (written != -1 && written == frameSize) {
        return PPC_OK;
    }
    PPC_ERROR(PPC_TEXT("send (sockfd %d)error: %s(errno: %d)  %d %d %d"), fd, strerror(errno), errno,
              static_cast<int>(written), len, kLengthFieldSize);
    if (written > 0) {
        // What follows a cut frame would be read as the rest of it.
        shutdown(fd, SHUT_RDWR);
    }
    return PPC_ERR_SEND;
}

int drvPpcSocketRecvPeek(int fd, uint32_t* len)
{
    if (len == nullptr) {
        PPC_ERROR(PPC_TEXT("null ptr"));
        return PPC_ERR_INVALID_VALUE;
    }
    uint32_t lengthField = 0;
    const ssize_t received = Receive(fd, &lengthField, kLengthFieldSize, MSG_PEEK);
    if (received == 0) {
        PPC_INFO(PPC_TEXT("client connection closed: %s(errno: %d)(sock: %d)"), strerror(errno), errno, fd);
        return PPC_ERR_SOCKET_CLOSED;
    }
    if (received < 0) {
        PPC_ERROR(PPC_TEXT("recv error: %s(errno: %d)(sock: %d)"), strerror(errno), errno, fd);
        return PPC_ERR_RECV;
    }
    if (received != kLengthFieldSize) {
        PPC_ERROR(PPC_TEXT("length should be: %d(sock: %d)"), kLengthFieldSize, fd);
        return PPC_ERR_INVALID_VALUE;
    }
    *len = ntohl(lengthField);
    return PPC_OK;
}

int drvPpcSocketRecv(int fd, void* buf, int expected, uint32_t* got)
{
    if (buf == nullptr) {
        PPC_ERROR(PPC_TEXT("null pBuf"));
        return PPC_ERR_INVALID_VALUE;
    }
    if (expected < 0 || got == nullptr) {
        PPC_ERROR(PPC_TEXT("illegal expected length %d or null ptr"), expected);
        return PPC_ERR_INVALID_VALUE;
    }
    uint32_t lengthField = 0;
    ssize_t received = Receive(fd, &lengthField, kLengthFieldSize, 0);
    if (received < 0) {
        PPC_ERROR(PPC_TEXT("recv error: %s(errno: %d)(sock: %d)"), strerror(errno), errno, fd);
        return PPC_ERR_RECV;
    }
    if (received == 0) {
        PPC_ERROR(PPC_TEXT("client connection closed: %s(errno: %d)(sock: %d)"), strerror(errno), errno, fd);
        return PPC_ERR_SOCKET_CLOSED;
    }
    const uint32_t announced = ntohl(lengthField);
    if (announced != static_cast<uint32_t>(expected)) {
        PPC_ERROR(PPC_TEXT("recv Msg length not equal: %d != %d(sock: %d)"), static_cast<int>(announced), expected, fd);
        return PPC_ERR_INVALID_VALUE;
    }
    uint32_t total = 0;
    while (total < announced) {
        received = Receive(fd, static_cast<char*>(buf) + total, announced - total, 0);
        if (received < 0) {
            PPC_ERROR(PPC_TEXT("recv error: %s(errno: %d)(sock: %d)"), strerror(errno), errno, fd);
            return PPC_ERR_RECV;
        }
        if (received == 0) {
            PPC_ERROR(PPC_TEXT("client connection closed: %s(errno: %d)(sock: %d)"), strerror(errno), errno, fd);
            return PPC_ERR_SOCKET_CLOSED;
        }
        total += static_cast<uint32_t>(received);
    }
    *got = total;
    return PPC_OK;
}

int drvPpcSend(PpcSession* session, PpcMsg* msg, uint32_t flag)
{
    if (session == nullptr) {
        PPC_ERROR(PPC_TEXT("null session"));
        return PPC_ERR_INVALID_VALUE;
    }
    if (msg == nullptr) {
        PPC_ERROR(PPC_TEXT("illegal msg"));
        return PPC_ERR_INVALID_VALUE;
    }
    if (flag != 0) {
        PPC_ERROR(PPC_TEXT("flag just support 0, for future feature, %d"), static_cast<int>(flag));
        return PPC_ERR_INVALID_VALUE;
    }
    if (msg->bd.buffer == nullptr) {
        PPC_ERROR(PPC_TEXT("illegal msg"));
        return PPC_ERR_INVALID_VALUE;
    }
    PpcRecord* record = PpcRecord::Of(session);
    const PpcCall call(record);
    qel::MutexLock turn(record->SendTurn());
    if (drvPpcSocketSend(call.Fd(), msg->bd.buffer, msg->bd.length) != PPC_OK) {
        PPC_ERROR(PPC_TEXT("ppc send message error"));
        return PPC_ERR_SEND;
    }
    return PPC_OK;
}

int drvPpcRecv(PpcSession* session, PpcMsg* msg, uint32_t, uint32_t, uint32_t* count)
{
    if (session == nullptr) {
        PPC_ERROR(PPC_TEXT("null session"));
        return PPC_ERR_INVALID_VALUE;
    }
    if (msg == nullptr || count == nullptr) {
        PPC_ERROR(PPC_TEXT("null ptr"));
        return PPC_ERR_INVALID_VALUE;
    }
    PpcRecord* record = PpcRecord::Of(session);
    const PpcCall call(record);
    const int fd = call.Fd();
    uint32_t length = 0;
    int code = drvPpcSocketRecvPeek(fd, &length);
    if (code != PPC_OK) {
        return code;
    }
    if (length > PPC_MAX_MSG_LEN) {
        PPC_ERROR(PPC_TEXT("msg length too large: %d(support: %d Byte) "), static_cast<int>(length),
                  static_cast<int>(PPC_MAX_MSG_LEN));
        return PPC_ERR_NO_RESOURCE;
    }
    if (length == 0) {
        return PPC_OK;
    }
    void* buffer = malloc(length);
    if (buffer == nullptr) {
        PPC_ERROR(PPC_TEXT("malloc fail(sock: %d)"), fd);
        record->Revoke();
        return PPC_ERR_NO_MEMORY;
    }
    code = drvPpcAddMsgBuffer(msg, buffer, static_cast<int>(length));
    if (code != PPC_OK) {
        PPC_ERROR(PPC_TEXT("qelPpcAddMsgBuffer fail, err(%d)(sock: %d)"), code, fd);
        free(buffer);
        record->Revoke();
        return code;
    }
    BlockOf(msg)->hidden.ownsBuffer = 1;
    uint32_t got = 0;
    code = drvPpcSocketRecv(fd, buffer, static_cast<int>(length), &got);
    if (code != PPC_OK) {
        PPC_ERROR(PPC_TEXT("socket recv mesg fail(session id:%d errno: %d)"), fd, code);
        drvPpcReuseMsg(msg);
        return PPC_ERR_RECV;
    }
    msg->bd.length = static_cast<int32_t>(got);
    *count = kBufferCount;
    return PPC_OK;
}

// NOLINTEND(concurrency-mt-unsafe)
