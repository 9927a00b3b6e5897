#ifndef GAKPPC_CLIENT_LINES_H
#define GAKPPC_CLIENT_LINES_H

#include <string>

#include "client_fixture.h"

// Lines of the client's life, and the messages that its tests send.
namespace gaktest {

inline const std::string kConnecting =
    Line("GetPpcSession", "[GAKPPCCLI] GetPpcSession() will Create session use serverId: 19280");
inline const std::string kConnected =
    Line("GetPpcSession", "[GAKPPCCLI] [serverId=19280] GetPpcSession() receive thread has been started");
inline const std::string kConnectFailed =
    Line(kConnectFail, "GetPpcSession", "[GAKPPCCLI] GetPpcSession() drvPpcSessionConnect fail");
inline const std::string kNoMemoryForSession =
    Line(kMemoryExhausted, "GetPpcSession", "[GAKPPCCLI] GetPpcSession() no memory for the session");
inline const std::string kNoMemoryForDevice =
    Line(kMemoryExhausted, "SendPpcMsg", "[GAKPPCCLI] SendPpcMsg() no memory for the device");
inline const std::string kDestroyEnter = Line("Destroy", "[GAKPPCCLI]  Destroy() enter");
inline const std::string kDestroyExit = Line("Destroy", "[GAKPPCCLI]  Destroy() exit");
inline const std::string kNotRunning = Line(kDriverError, "Destroy", "[GAKPPCCLI]  Destroy() ppcclient not run");

inline std::string SessionDestroyed(int result)
{
    return Line("Destroy",
                "[GAKPPCCLI] Destroy() call drvPpcSessionDestroy func return [drvRet:" + std::to_string(result) + "]");
}

inline qel::PPCMessage Message(qel::PPCMessage::MsgType type, uint32_t destId,
                               qel::PPCMessage::ProcessType procType = qel::PPCMessage::ZOLT)
{
    qel::PPCMessage msg;
    msg.set_type(type);
    msg.set_dest_id(destId);
    msg.set_proc_type(procType);
    return msg;
}

}  // namespace gaktest

#endif
