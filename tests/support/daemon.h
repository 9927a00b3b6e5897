#ifndef GAKPPC_DAEMON_H
#define GAKPPC_DAEMON_H

#include "ppc.h"
#include "ppc_server.h"

// For tests in which a process is the daemon.
namespace gaktest {

// Numbers and not the library's constants, so that a change of those is noticed.
constexpr uint32_t kOk = 0x1011000;
constexpr uint32_t kServerId = 19280;

inline qel::PPCMessage MessageTo(uint32_t device, uint32_t pid, qel::PPCMessage::MsgType type,
                                 qel::PPCMessage::ProcessType procType = qel::PPCMessage::ZOLT)
{
    qel::PPCMessage msg;
    msg.set_type(type);
    msg.set_dest_id(device);
    msg.set_proc_type(procType);
    msg.set_sub_proc_pid(pid);
    return msg;
}

// A null handler leaves the handler table as it is.
inline bool StartServer(void (*handlerOfAllTypes)(const qel::PPCMessage&) = nullptr)
{
    qel::PpcServer& server = qel::PpcServer::GetInstance();
    for (uint32_t type = 0; handlerOfAllTypes != nullptr && type <= qel::PPCMessage::SOCKET_CLOSE; ++type) {
        server.RegPPCSerMsgProcFunc(type, handlerOfAllTypes);
    }
    return ppcInit() == 0 && server.CreateServer(kServerId) == kOk;
}

}  // namespace gaktest

#endif
