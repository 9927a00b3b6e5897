// The driver's functions by which the server receives, sends and ends sessions, wrapped for the capture, and to know
// who sends. They have the names of the library's own, whose calls therefore come here, and pass everything on.
// drvPpcRecv and drvPpcSend know the session; the calls that they make in the same thread know the descriptor and the
// bytes.

#include <dlfcn.h>
#include <gakppc/ppc.h>
#include <sys/socket.h>

#include <cstdlib>
#include <utility>

#include "session_peer.h"
#include "wire_capture.h"

namespace tools {
namespace {

// What this thread receives or sends on.
thread_local PpcSession* currentSession = nullptr;
thread_local WireCapture::Connection currentConnection;

class SessionScope {
public:
    explicit SessionScope(PpcSession* session) : previous_(std::exchange(currentSession, session)) {}
    ~SessionScope() { currentSession = previous_; }
    SessionScope(const SessionScope&) = delete;
    SessionScope& operator=(const SessionScope&) = delete;

private:
    PpcSession* const previous_;
};

// The library's function of that name.
template <typename Function>
Function* Next(Function* /*wrapper*/, const char* name)
{
    void* const next = dlsym(RTLD_NEXT, name);
    if (next == nullptr) {
        abort();  // this program is linked to the library, which has it
    }
    return reinterpret_cast<Function*>(next);
}

// Whether there is something to record of this thread's session.
bool UseSession(int fd)
{
    currentConnection = {};
    WireCapture::WithCurrent([fd](WireCapture& capture) { currentConnection = capture.Use(currentSession, fd); });
    return currentConnection.number > 0;
}

void RecordBytes(Direction direction, StreamItemKind kind, Bytes&& bytes)
{
    WireCapture::WithCurrent(
        [&](WireCapture& capture) { capture.OnBytes(currentConnection, direction, kind, std::move(bytes)); });
}

Bytes WholeFrame(const void* payload, int length)
{
    const auto* const bytes = static_cast<const uint8_t*>(payload);
    return FrameOf(Bytes(bytes, bytes + length));
}

Bytes LengthField(uint32_t length)
{
    return {static_cast<uint8_t>(length >> 24), static_cast<uint8_t>(length >> 16), static_cast<uint8_t>(length >> 8),
            static_cast<uint8_t>(length)};
}

// The beginning of a length field, which the driver leaves where it is.
Bytes WaitingBytes(int fd)
{
    Bytes bytes(kFrameHeaderSize);
    const ssize_t count = recv(fd, bytes.data(), bytes.size(), MSG_PEEK | MSG_DONTWAIT);
    bytes.resize(count > 0 ? static_cast<size_t>(count) : 0);
    return bytes;
}

// What the driver does not read any further than its length field.
void RecordUnread(int fd, int result, const uint32_t* length)
{
    if (result == PPC_ERR_INVALID_VALUE) {
        RecordBytes(Direction::kToDaemon, StreamItemKind::kFragment, WaitingBytes(fd));
    } else if (result == PPC_OK && *length == 0) {
        RecordBytes(Direction::kToDaemon, StreamItemKind::kFrame, LengthField(*length));
    } else if (result == PPC_OK && *length > PPC_MAX_MSG_LEN) {
        RecordBytes(Direction::kToDaemon, StreamItemKind::kFragment, LengthField(*length));
    }
}

void RecordReceived(int result, const void* payload, int length)
{
    if (result == PPC_OK) {
        RecordBytes(Direction::kToDaemon, StreamItemKind::kFrame, WholeFrame(payload, length));
    } else {
        RecordBytes(Direction::kToDaemon, StreamItemKind::kFragment, LengthField(static_cast<uint32_t>(length)));
    }
}

}  // namespace
}  // namespace tools

int drvPpcSessionAccept(PpcServerHead* server, PpcSession** ppSession)
{
    static const auto next = tools::Next(&drvPpcSessionAccept, "drvPpcSessionAccept");
    const int result = next(server, ppSession);
    if (result == PPC_OK) {
        tools::WireCapture::WithCurrent([ppSession](tools::WireCapture& capture) { capture.OnAccepted(*ppSession); });
    }
    return result;
}

int drvPpcRecv(PpcSession* session, PpcMsg* msg, uint32_t reserved1, uint32_t reserved2, uint32_t* count)
{
    static const auto next = tools::Next(&drvPpcRecv, "drvPpcRecv");
    const tools::SessionScope scope(session);
    return next(session, msg, reserved1, reserved2, count);
}

int drvPpcSocketRecvPeek(int fd, uint32_t* len)
{
    static const auto next = tools::Next(&drvPpcSocketRecvPeek, "drvPpcSocketRecvPeek");
    const bool recorded = tools::UseSession(fd);
    const int result = next(fd, len);
    if (recorded) {
        tools::RecordUnread(fd, result, len);
    }
    return result;
}

int drvPpcSocketRecv(int fd, void* buf, int expected, uint32_t* got)
{
    static const auto next = tools::Next(&drvPpcSocketRecv, "drvPpcSocketRecv");
    tools::SetSessionPeer(fd);
    const int result = next(fd, buf, expected, got);
    if (tools::currentConnection.number > 0) {  // as of the peek in front of it
        tools::RecordReceived(result, buf, expected);
    }
    return result;
}

int drvPpcSend(PpcSession* session, PpcMsg* msg, uint32_t flag)
{
    static const auto next = tools::Next(&drvPpcSend, "drvPpcSend");
    const tools::SessionScope scope(session);
    return next(session, msg, flag);
}

int drvPpcSocketSend(int fd, const void* buf, int len)
{
    static const auto next = tools::Next(&drvPpcSocketSend, "drvPpcSocketSend");
    // Before it is sent: the answer must not come first.
    if (tools::UseSession(fd) && buf != nullptr && len >= 0) {
        tools::RecordBytes(tools::Direction::kToWorker, tools::StreamItemKind::kFrame, tools::WholeFrame(buf, len));
    }
    return next(fd, buf, len);
}

int drvPpcSessionClose(PpcSession* session)
{
    static const auto next = tools::Next(&drvPpcSessionClose, "drvPpcSessionClose");
    const int result = next(session);
    if (result == PPC_OK) {
        tools::WireCapture::WithCurrent([session](tools::WireCapture& capture) { capture.OnClosed(session); });
    }
    return result;
}
