#include "statuses.h"

#include <fmt/format.h>
#include <gakppc/ppc.h>
#include <gakppc/status_table.h>

#include <algorithm>

namespace tools {
namespace {

Status DriverCode(uint32_t number, const char* constant, const char* text)
{
    return {number, constant, text, true};
}

}  // namespace

const std::vector<Status>& AllStatuses()
{
#define GAKPPC_TOOLS_ROW(X, number, text) {number, nullptr, text, false},
#define GAKPPC_TOOLS_NAMED_ROW(X, name, number, text, meaning) {number, #name, text, false},
#define GAKPPC_TOOLS_CODE(name, text) DriverCode(name, #name, text)
    static const std::vector<Status> statuses{
        GAKPPC_STATUS_LIST(GAKPPC_TOOLS_ROW, GAKPPC_TOOLS_NAMED_ROW, )  //
        GAKPPC_TOOLS_CODE(PPC_OK, "success"),
        GAKPPC_TOOLS_CODE(PPC_ERR_INVALID_VALUE, "an argument, a descriptor or the length of a frame is not valid"),
        GAKPPC_TOOLS_CODE(PPC_ERR_NO_RESOURCE, "the descriptor has a buffer already, or the frame is too long"),
        GAKPPC_TOOLS_CODE(PPC_ERR_SOCKET_CREATE, "socket failed"),
        GAKPPC_TOOLS_CODE(PPC_ERR_SOCKET_CONNECT, "connect failed"),
        GAKPPC_TOOLS_CODE(PPC_ERR_SOCKET_BIND, "bind failed"),
        GAKPPC_TOOLS_CODE(PPC_ERR_SOCKET_LISTEN, "listen failed"),
        GAKPPC_TOOLS_CODE(PPC_ERR_SOCKET_ACCEPT, "accept failed"),
        GAKPPC_TOOLS_CODE(PPC_ERR_SOCKET_PATH, "the socket path could not be formed, or ppcInit has not succeeded"),
        GAKPPC_TOOLS_CODE(PPC_ERR_SOCKET_CLOSED, "the peer closed before a frame began, or this end has closed"),
        GAKPPC_TOOLS_CODE(PPC_ERR_RECV, "receiving failed, or the connection ended inside a frame"),
        GAKPPC_TOOLS_CODE(PPC_ERR_SEND, "sending failed, or a frame was sent in part"),
        GAKPPC_TOOLS_CODE(PPC_ERR_NO_MEMORY, "no memory"),
    };
#undef GAKPPC_TOOLS_CODE
#undef GAKPPC_TOOLS_NAMED_ROW
#undef GAKPPC_TOOLS_ROW
    return statuses;
}

const Status* FindStatus(uint32_t number)
{
    const auto& all = AllStatuses();
    const auto found =
        std::find_if(all.begin(), all.end(), [number](const Status& status) { return status.number == number; });
    return found == all.end() ? nullptr : &*found;
}

std::string StatusLabel(uint32_t number)
{
    const Status* const status = FindStatus(number);
    const std::string digits =
        status != nullptr && status->isDriverCode ? std::to_string(number) : fmt::format("0x{:X}", number);
    return status != nullptr && status->constant != nullptr ? fmt::format("{} ({})", status->constant, digits) : digits;
}

}  // namespace tools
