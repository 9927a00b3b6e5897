#include "client_sessions.h"

#include <unistd.h>

#include <new>
#include <utility>

#include "gak_limits.h"
#include "gak_log.h"
#include "own_pid.h"
#include "ppc.h"
#include "status_table.h"

namespace qel {
namespace {

// Log readers know the lines by the client's public functions.
constexpr char kSourcePath[] = "qel/device/src/gak/ppc_client";
constexpr char kGetFunction[] = "GetPpcSession";
constexpr char kDestroyFunction[] = "Destroy";

}  // namespace

bool ClientSessions::BelongToParent() const
{
    const pid_t owner = owner_;
    return owner != 0 && owner != getpid();
}

bool ClientSessions::IsDestroyed()
{
    MutexLock lock(mutex_);
    return isDestroyed_;
}

ppc::PpcSessionRef ClientSessions::Get(uint32_t key, AfterDestroy afterDestroy)
{
    ppc::PpcSessionRef found = Find(key);
    if (found.Get() != nullptr) {
        return found;
    }
    GAK_INFO_AS(kGetFunction, "[GAKPPCCLI] GetPpcSession() will Create session use serverId: %u", kPpcServerId);
    try {
        Opened opened = FindOrConnect(key, afterDestroy);
        if (opened.outcome == Outcome::kConnectFailed) {
            GAK_STATUS_AS(kGetFunction, kStatusPpcConnectFail, "[GAKPPCCLI] GetPpcSession() drvPpcSessionConnect fail");
        } else if (opened.outcome == Outcome::kConnected) {
            GAK_INFO_AS(kGetFunction, "[GAKPPCCLI] [serverId=%u] GetPpcSession() receive thread has been started",
                        kPpcServerId);
        }
        return std::move(opened.session);
    } catch (const std::bad_alloc&) {
        GAK_STATUS_AS(kGetFunction, kStatusMemoryExhausted, "[GAKPPCCLI] GetPpcSession() no memory for the session");
        return {};
    }
}

ppc::PpcSessionRef ClientSessions::Find(uint32_t key)
{
    MutexLock lock(mutex_);
    const auto found = sessions_.find(key);
    return found == sessions_.end() ? ppc::PpcSessionRef() : found->second;
}

ClientSessions::Opened ClientSessions::FindOrConnect(uint32_t key, AfterDestroy afterDestroy)
{
    Sessions added;
    ppc::PpcSessionRef& entry = added[key];  // made first, so that what has been connected can be stored
    MutexLock lock(mutex_);
    if (isDestroyed_ && afterDestroy == AfterDestroy::kOpenNothing) {
        return {Outcome::kRefused, {}};
    }
    const auto found = sessions_.find(key);  // again: another thread may have connected meanwhile
    if (found != sessions_.end()) {
        return {Outcome::kFound, found->second};
    }
    PpcSession* session = nullptr;
    if (drvPpcSessionConnect(static_cast<int>(kPpcServerId), &session) != PPC_OK || session == nullptr) {
        return {Outcome::kConnectFailed, {}};
    }
    entry = ppc::PpcSessionRef(session);
    Opened opened{Outcome::kConnected, entry};
    sessions_.merge(added);
    owner_ = static_cast<pid_t>(OwnPid());
    isDestroyed_ = false;
    isRunning_ = true;
    return opened;
}

bool ClientSessions::DestroyAll()
{
    Sessions taken;
    if (!isRunning_ || !TakeAll(&taken)) {
        return false;
    }
    for (const auto& entry : taken) {
        const int result = drvPpcSessionDestroy(static_cast<PpcSession*>(entry.second.Get()));
        GAK_INFO_AS(kDestroyFunction, "[GAKPPCCLI] Destroy() call drvPpcSessionDestroy func return [drvRet:%d]",
                    result);
        if (result != PPC_OK) {
            GAK_STATUS_AS(kDestroyFunction, kStatusDriverError, "[GAKPPCCLI]  Destroy() drvPpcSessionDestroy fail");
        }
    }
    return true;
}

// False when another thread has taken them.
bool ClientSessions::TakeAll(Sessions* taken)
{
    MutexLock lock(mutex_);
    taken->swap(sessions_);
    isDestroyed_ = true;
    return isRunning_.exchange(false);
}

}  // namespace qel
