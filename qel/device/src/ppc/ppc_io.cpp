#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include "ppc.h"
#include "ppc_log.h"
#include "ppc_record.h"
#include "ppc_types.h"
#include "sigpipe_guard.h"

// NOLINTBEGIN(concurrency-mt-unsafe): what it finds is strerror, whose text glibc keeps for each thread

namespace {

using ppc::PpcCall;
using ppc::PpcRecord;

constexpr int kLengthFieldSize = 4;

// recv that is not disturbed by signals.
ssize_t Receive(int fd, void* buf, size_t size, int flags)
{
    ssize_t received;
    do {
        received = recv(fd, buf, size, flags);
    } while (received == -1 && errno == EINTR);
    return received;
}

// Reads what has arrived, at most `size` bytes. PPC_ERR_RECV or PPC_ERR_SOCKET_CLOSED if that is nothing.
int ReceiveSome(int fd, void* buf, size_t size, size_t* received, ppc::CallSite site)
{
    const ssize_t result = Receive(fd, buf, size, 0);
    const int error = errno;
    if (result < 0) {
        PPC_ERROR(PPC_TEXT_AT(site, "recv error: %s(errno: %d)(sock: %d)"), strerror(error), error, fd);
        return PPC_ERR_RECV;
    }
    if (result == 0) {
        PPC_ERROR(PPC_TEXT_AT(site, "client connection closed: %s(errno: %d)(sock: %d)"), strerror(error), error, fd);
        return PPC_ERR_SOCKET_CLOSED;
    }
    *received = static_cast<size_t>(result);
    return PPC_OK;
}

int ReceivePayload(int fd, char* buf, size_t size, ppc::CallSite site)
{
    size_t received = 0;
    for (size_t total = 0; total < size; total += received) {
        const int code = ReceiveSome(fd, buf + total, size - total, &received, site);
        if (code != PPC_OK) {
            return code;
        }
    }
    return PPC_OK;
}

// Gives the descriptor a buffer of its own.
int AddReceiveBuffer(PpcMsg* msg, uint32_t length, void** added, int fd, ppc::CallSite site)
{
    std::unique_ptr<void, ppc::FreeMemory> buffer(malloc(length));
    if (buffer == nullptr) {
        PPC_ERROR(PPC_TEXT_AT(site, "malloc fail(sock: %d)"), fd);
        return PPC_ERR_NO_MEMORY;
    }
    const int code = drvPpcAddMsgBuffer(msg, buffer.get(), static_cast<int>(length));
    if (code != PPC_OK) {
        PPC_ERROR(PPC_TEXT_AT(site, "qelPpcAddMsgBuffer fail, err(%d)(sock: %d)"), code, fd);
        return code;
    }
    *added = buffer.release();
    ppc::BlockOf(msg)->head.ownsBuffer = 1;
    return PPC_OK;
}

// Reads one frame into the descriptor, in the name of drvPpcRecv.
int ReceiveFrame(PpcRecord* record, int fd, PpcMsg* msg, uint32_t* count, ppc::CallSite site)
{
    uint32_t length = 0;
    int code = drvPpcSocketRecvPeek(fd, &length);
    if (code != PPC_OK || length == 0) {
        return code;
    }
    if (length > PPC_MAX_MSG_LEN) {
        PPC_ERROR(PPC_TEXT_AT(site, "msg length too large: %d(support: %d Byte) "), static_cast<int>(length),
                  static_cast<int>(PPC_MAX_MSG_LEN));
        return PPC_ERR_NO_RESOURCE;
    }
    void* buffer = nullptr;
    code = AddReceiveBuffer(msg, length, &buffer, fd, site);
    if (code != PPC_OK) {
        record->Revoke();
        return code;
    }
    uint32_t got = 0;
    code = drvPpcSocketRecv(fd, buffer, static_cast<int>(length), &got);
    if (code != PPC_OK) {
        PPC_ERROR(PPC_TEXT_AT(site, "socket recv mesg fail(session id:%d errno: %d)"), fd, code);
        drvPpcReuseMsg(msg);
        return PPC_ERR_RECV;
    }
    msg->bd.length = static_cast<int32_t>(got);
    *count = ppc::kBufferCount;
    return PPC_OK;
}

// The send mutex of the session that drvPpcSend sends on in this thread, for drvPpcSocketSend, which may be replaced
// and therefore is told of descriptor and bytes only. It is held for the system calls and not for the lines about them.
thread_local qel::Mutex* sendMutex = nullptr;

class SendMutexScope {
public:
    explicit SendMutexScope(qel::Mutex* mutex) : previous_(std::exchange(sendMutex, mutex)) {}
    ~SendMutexScope() { sendMutex = previous_; }
    SendMutexScope(const SendMutexScope&) = delete;
    SendMutexScope& operator=(const SendMutexScope&) = delete;

private:
    qel::Mutex* const previous_;
};

struct WriteResult {
    ssize_t written;
    int error;
};

// One frame with one system call.
WriteResult WriteFrame(int fd, const void* buf, int len)
{
    uint32_t lengthField = htonl(static_cast<uint32_t>(len));
    iovec entries[2] = {{&lengthField, kLengthFieldSize}, {const_cast<void*>(buf), static_cast<size_t>(len)}};
    const ppc::SigpipeGuard guard;
    const ssize_t written = writev(fd, entries, 2);
    const int error = errno;
    if (written == -1 && error == EPIPE) {
        ppc::SigpipeGuard::Consume();
    }
    if (written > 0 && written != static_cast<ssize_t>(len) + kLengthFieldSize) {
        // What follows a cut frame would be read as the rest of it.
        shutdown(fd, SHUT_RDWR);
    }
    return {written, error};
}

WriteResult WriteFrameOfSession(int fd, const void* buf, int len)
{
    qel::Mutex* mutex = std::exchange(sendMutex, nullptr);
    if (mutex == nullptr) {
        return WriteFrame(fd, buf, len);
    }
    qel::MutexLock lock(*mutex);
    return WriteFrame(fd, buf, len);
}

}  // namespace

int drvPpcSocketSend(int fd, const void* buf, int len)
{
    if (buf == nullptr) {
        PPC_ERROR(PPC_TEXT("null buf"));
        return PPC_ERR_INVALID_VALUE;
    }
    const WriteResult result = WriteFrameOfSession(fd, buf, len);
    if (result.written != -1 && result.written == static_cast<ssize_t>(len) + kLengthFieldSize) {
        return PPC_OK;
    }
    PPC_ERROR(PPC_TEXT("send (sockfd %d)error: %s(errno: %d)  %d %d %d"), fd, strerror(result.error), result.error,
              static_cast<int>(result.written), len, kLengthFieldSize);
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
    const int error = errno;
    if (received == 0) {
        PPC_INFO(PPC_TEXT("client connection closed: %s(errno: %d)(sock: %d)"), strerror(error), error, fd);
        return PPC_ERR_SOCKET_CLOSED;
    }
    if (received < 0) {
        PPC_ERROR(PPC_TEXT("recv error: %s(errno: %d)(sock: %d)"), strerror(error), error, fd);
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
    if (got == nullptr) {
        PPC_ERROR(PPC_TEXT("illegal expected length %d or null ptr"), expected);
        return PPC_ERR_INVALID_VALUE;
    }
    uint32_t lengthField = 0;
    size_t received = 0;
    int code = ReceiveSome(fd, &lengthField, kLengthFieldSize, &received, PPC_CALL_SITE);
    if (code != PPC_OK) {
        return code;
    }
    const uint32_t announced = ntohl(lengthField);
    if (expected < 0 || announced != static_cast<uint32_t>(expected)) {
        PPC_ERROR(PPC_TEXT("recv Msg length not equal: %d != %d(sock: %d)"), static_cast<int>(announced), expected, fd);
        return PPC_ERR_INVALID_VALUE;
    }
    code = ReceivePayload(fd, static_cast<char*>(buf), announced, PPC_CALL_SITE);
    if (code == PPC_OK) {
        *got = announced;
    }
    return code;
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
    const SendMutexScope scope(call.HasEntered() ? &record->SendMutex() : nullptr);
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
    const int error = errno;
    PpcRecord* record = PpcRecord::Of(session);
    const PpcCall call(record);
    if (!call.HasEntered() && record->IsEnded()) {
        PPC_INFO(PPC_TEXT("client connection closed: %s(errno: %d)(sock: %d)"), strerror(error), error, call.Fd());
        return PPC_ERR_SOCKET_CLOSED;
    }
    const int code = ReceiveFrame(record, call.Fd(), msg, count, PPC_CALL_SITE);
    // However far it had come: whoever ended the session hears that it has closed, whenever they did it.
    return code == PPC_ERR_RECV && record->IsEnded() ? PPC_ERR_SOCKET_CLOSED : code;
}

// NOLINTEND(concurrency-mt-unsafe)
