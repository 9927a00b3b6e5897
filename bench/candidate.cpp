#include "candidate.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace bench {
namespace {

constexpr uint32_t kServerId = 0x4B50;

// A candidate may send its own standard error elsewhere.
const int errorOutput = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);

}  // namespace

void Link::SendHeartbeat(uint32_t device)
{
    Send(MakeMessage(qel::PPCMessage::HEARTBEAT, device));
}

qel::PPCMessage MakeMessage(qel::PPCMessage::MsgType type, uint32_t device)
{
    static const auto pid = static_cast<uint32_t>(getpid());
    qel::PPCMessage msg;
    msg.set_type(type);
    msg.set_src_id(device);
    msg.set_dest_id(kServerId);
    msg.set_proc_type(qel::PPCMessage::COMPUTE);
    msg.set_sub_proc_pid(pid);
    return msg;
}

bool IsAnswered(const qel::PPCMessage& msg)
{
    return msg.type() == qel::PPCMessage::START_RSP || msg.src_id() == kEchoDevice;
}

qel::PPCMessage AnswerTo(const qel::PPCMessage& msg)
{
    qel::PPCMessage answer;
    answer.set_type(qel::PPCMessage::HEARTBEAT);
    answer.set_src_id(kServerId);
    answer.set_dest_id(msg.src_id());
    answer.set_proc_type(msg.proc_type());
    answer.set_sub_proc_pid(msg.sub_proc_pid());
    return answer;
}

void Require(bool holds, const char* text)
{
    if (!holds) {
        dprintf(errorOutput, "bench: %s failed (%s)\n", text, strerror(errno));
        _exit(1);
    }
}

}  // namespace bench
