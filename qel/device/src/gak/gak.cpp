#include "gak.h"

#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

#include "gak_log.h"
#include "ppc_client.h"
#include "status_table.h"

namespace {

// The lines of the exported functions carry the client's path: the two are one thing to a log reader.
constexpr char kSourcePath[] = "qel/device/src/gak/ppc_client";

// The status of `call`, or kStatusPpcCreateFail, with the line `whenCaught`, if it raises anything.
template <typename Call>
uint32_t CatchAll(const char* function, const char* whenCaught, const Call& call)
{
    try {
        return call(*qel::PpcClient::GetInstance());
    } catch (...) {
        GAK_STATUS_AS(function, qel::kStatusPpcCreateFail, "%s", whenCaught);
        return qel::kStatusPpcCreateFail;
    }
}

// What GakHeartbeatSend and GakDestory make of their member's status.
uint32_t ResultOfReport(const char* function, uint32_t status)
{
    if (status != qel::kStatusOk) {
        return status;
    }
    GAK_STATUS_AS(function, qel::kStatusOk, "%s exit", function);
    return 0;
}

// What GakWaitForShutdown and CreateOrFindCustPid make of their member's status.
uint32_t ResultOfWait(const char* function, uint32_t status)
{
    if (status != qel::kStatusOk) {
        GAK_STATUS_AS(function, qel::kStatusPpcCreateFail, "%s execute failed", function);
        return qel::kStatusPpcCreateFail;
    }
    GAK_INFO_AS(function, "%s exit", function);
    return 0;
}

}  // namespace

uint32_t GakWaitForShutdown(uint32_t deviceId, GakWaitType waitType)
{
    const uint32_t status =
        CatchAll(__func__, "catch exception while gak wait for shutdown",
                 [&](qel::PpcClient& client) { return client.GakWaitForShutdownProc(deviceId, waitType); });
    return ResultOfWait(__func__, status);
}

uint32_t GakHeartbeatSend(uint32_t deviceId, GakWaitType waitType)
{
    const uint32_t status = CatchAll(__func__, "catch exception while gak heartbeat msg send",
                                     [&](qel::PpcClient& client) { return client.SendHeartbeat(deviceId, waitType); });
    return ResultOfReport(__func__, status);
}

uint32_t GakDestory(uint32_t deviceId, GakWaitType waitType)
{
    const uint32_t status = CatchAll(__func__, "catch exception while gak destory", [&](qel::PpcClient& client) {
        return client.SendAbnormalMsg(deviceId, waitType);
    });
    return ResultOfReport(__func__, status);
}

uint32_t CreateOrFindCustPid(uint32_t libNameCount, const char* const* libNameList, uint32_t hostPid)
{
    if (libNameList == nullptr && libNameCount != 0) {
        return ResultOfWait(__func__, qel::kStatusPpcClientInvalidParam);
    }
    if (std::any_of(libNameList, libNameList + libNameCount, [](const char* name) { return name == nullptr; })) {
        // Outside the handler below, and with this text: callers depend on both.
        throw std::logic_error("basic_string::_M_construct null not valid");
    }
    // The handler's text is GakWaitForShutdown's: log readers know this one by it.
    const uint32_t status =
        CatchAll(__func__, "catch exception while gak wait for shutdown", [&](qel::PpcClient& client) {
            std::vector<std::string> libNames(libNameList, libNameList + libNameCount);
            return client.CreateOrFindCustPid(libNames, hostPid);
        });
    return ResultOfWait(__func__, status);
}
