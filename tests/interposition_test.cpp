// A program that defines functions which the library also exports or imports: the library's own calls must reach the
// program's, as for every process that embeds the library and wraps them. No hook is set here; what is seen is the
// dynamic linker's doing alone.

#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

#include "memguard.h"
#include "ppc.h"
#include "ppc_interface.h"
#include "support/deadline.h"
#include "vlog.h"

namespace {

// Calls that came in, and what the next ones answer.
int drvPpcSendCalls = 0;
int drvPpcSendAnswer = PPC_OK;
int drvPpcAddMsgBufferCalls = 0;
int memsetCalls = 0;
int writevCalls = 0;
int recvCalls = 0;
int errorLines = 0;
int infoLines = 0;
int failures = 0;

void Check(bool holds, const char* what)
{
    if (!holds) {
        fprintf(stderr, "failed: %s\n", what);
        ++failures;
    }
}
#define CHECK(condition) Check((condition), #condition)

}  // namespace

extern "C" {

int drvPpcSend(PpcSession* /*session*/, PpcMsg* /*msg*/, uint32_t /*flag*/)
{
    ++drvPpcSendCalls;
    return drvPpcSendAnswer;
}

int drvPpcAddMsgBuffer(PpcMsg* /*msg*/, void* buf, int len)
{
    ++drvPpcAddMsgBufferCalls;
    return buf != nullptr && len == 6 ? PPC_OK : PPC_ERR_INVALID_VALUE;
}

int memset_s(void* dest, size_t destMax, int c, size_t count)
{
    ++memsetCalls;
    if (dest == nullptr || count > destMax) {
        return -1;
    }
    memset(dest, c, count);
    return 0;
}

ssize_t writev(int fd, const iovec* parts, int count)
{
    ++writevCalls;
    return syscall(SYS_writev, fd, parts, count);
}

ssize_t recv(int fd, void* buf, size_t len, int flags)
{
    ++recvCalls;
    return syscall(SYS_recvfrom, fd, buf, len, flags, nullptr, nullptr);
}

int CheckLogLevel(int /*moduleId*/, int /*logLevel*/)
{
    return 1;
}

void VlogErrorInner(int moduleId, const char* /*fmt*/, ...)
{
    errorLines += moduleId == 38 ? 1 : 0;
}

void VlogInfoInner(int moduleId, const char* /*fmt*/, ...)
{
    infoLines += moduleId == 38 ? 1 : 0;
}

}  // extern "C"

namespace {

// What the driver looks at of a session that it did not make: the magic word and the descriptor.
struct SessionRecord {
    uint32_t magic = PPC_SESSION_MAGIC;
    int32_t fd = -1;
    uint8_t rest[24] = {};
};

class Codec : public qel::PpcInterface {};

void CodecCallsReachThePrograms()
{
    SessionRecord session;
    Codec codec;
    qel::PPCMessage msg;
    msg.set_type(qel::PPCMessage::HEARTBEAT);
    CHECK(codec.SendMsg(&session, msg) == 0x1011000);
    CHECK(drvPpcAddMsgBufferCalls == 1);
    CHECK(drvPpcSendCalls == 1);
    CHECK(memsetCalls > 0);
    CHECK(infoLines > 0);
    CHECK(errorLines == 0);

    drvPpcSendAnswer = PPC_ERR_SEND;
    CHECK(codec.SendMsg(&session, msg) == 0x1093037);
    CHECK(drvPpcSendCalls == 2);
    CHECK(errorLines == 1);
}

void DriverCallsReachThePrograms()
{
    int fds[2] = {-1, -1};
    CHECK(socketpair(AF_UNIX, SOCK_STREAM, 0, fds) == 0);
    CHECK(drvPpcSocketSend(fds[0], "hello", 5) == PPC_OK);
    CHECK(writevCalls == 1);

    char text[6] = "";
    uint32_t length = 0;
    CHECK(drvPpcSocketRecvPeek(fds[1], &length) == PPC_OK);
    CHECK(recvCalls == 1);
    CHECK(drvPpcSocketRecv(fds[1], text, 5, &length) == PPC_OK);
    CHECK(recvCalls == 3);
    CHECK(strcmp(text, "hello") == 0);
    close(fds[0]);
    close(fds[1]);

    const int before = errorLines;
    CHECK(drvPpcSocketSend(-1, "hello", 5) == PPC_ERR_SEND);
    CHECK(errorLines == before + 1);
}

}  // namespace

int main()
{
    gaktest::EndProcessAfter(
        std::chrono::seconds(10));  // a call that went to the library itself may wait for what never comes
    CodecCallsReachThePrograms();
    DriverCallsReachThePrograms();
    return failures == 0 ? 0 : 1;
}
