#ifndef GAKPPC_SERVER_LINES_H
#define GAKPPC_SERVER_LINES_H

#include <cstdint>
#include <string>

#include "log_lines.h"

// Lines that the server writes for each message.
namespace gaktest {

constexpr char kFirstReceiver[] = "ppc_srv_recv_0";
inline const std::string kTypes =
    "(0:START RSP,1:SHUTDOWN RSP,2:HEARTBEAT,3:NOTIFY_VEXOINFO,4:ABNORMAL,5:SHUTDOWN,6:SOCKET_CLOSE)";

inline std::string StoreLine(uint32_t device, uint32_t pid)
{
    return Plain("SetPpcSession", "[PpcServer] SetPpcSession, deviceId:" + std::to_string(device) +
                                      ", subProcPid:" + std::to_string(pid));
}

inline std::string LookupLine(uint32_t device, uint32_t pid)
{
    return Plain("GetPpcSession", "[PpcServer] GetPpcSession, deviceId:" + std::to_string(device) +
                                      ", subProcPid:" + std::to_string(pid));
}

inline std::string DispatchLine(uint32_t type)
{
    return Plain("PPCSerMsgProc", "[GAKPPCSER] PPCSerMsgProc msg type: " + std::to_string(type));
}

inline std::string NoHandlerLine(uint32_t type)
{
    return Plain("PPCSerMsgProc",
                 "[GAKPPCSER] PPCSerMsgProc msg type:" + std::to_string(type) + kTypes + " processFunc not exist");
}

inline std::string SavedLine(const std::string& thread, uint32_t device, int processType)
{
    return WithStatus(0x1011000, "RecvData",
                      "[GAKPPCSER] ##### [threadName:" + thread +
                          "] RecvData [ret=16846848] Save [device index in os:" + std::to_string(device) +
                          "] [notifyProcType:" + std::to_string(processType) + "]####");
}

}  // namespace gaktest

#endif
