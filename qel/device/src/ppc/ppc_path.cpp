#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstring>

#include "memguard.h"
#include "ppc.h"
#include "ppc_log.h"

// NOLINTBEGIN(concurrency-mt-unsafe): what it finds is strerror, whose text glibc keeps for each thread

namespace {

constexpr char kSocketDir[] = "/home/KrovaUser/qel_ppc/";
constexpr mode_t kSocketDirMode = 0350;
constexpr char kServerRole[] = "sock_server_";
constexpr char kClientRole[] = "sock_client_";

// The directory text once the directory is there; never cleared.
std::atomic<const char*> ppcSockDir{nullptr};

}  // namespace

int ppcInit(void)
{
    return drvPpcCreateDir();
}

int drvPpcCreateDir(void)
{
    // A directory that somebody made between the two calls is as good as one that was there before.
    if (access(kSocketDir, F_OK) != 0 && mkdir(kSocketDir, kSocketDirMode) != 0 && errno != EEXIST) {
        PPC_ERROR(PPC_TEXT("create ppc dir failed, %s (errno:%d)"), strerror(errno), errno);
        return -1;
    }
    ppcSockDir = kSocketDir;
    return 0;
}

int drvPpcSetSockPath(struct sockaddr_un* addr, int isServer, int serverId, uint32_t* addrLen)
{
    if (addr == nullptr || addrLen == nullptr) {
        PPC_ERROR(PPC_TEXT("invalid input, null ptr"));
        return PPC_ERR_INVALID_VALUE;
    }
    const char* dir = ppcSockDir;
    const int length = dir == nullptr ? -1
                                      : sprintf_s(addr->sun_path, sizeof(addr->sun_path), "%s%s%d", dir,
                                                  isServer != 0 ? kServerRole : kClientRole, serverId);
    if (length == -1) {
        *addrLen = 0;
        PPC_ERROR(PPC_TEXT("Ppc set path sprintf_s failed"));
        return PPC_ERR_SOCKET_PATH;
    }
    *addrLen = static_cast<uint32_t>(length + offsetof(sockaddr_un, sun_path));
    return PPC_OK;
}

int drvPpcInit(void)
{
    return PPC_OK;
}

int drvPpcUninit(void)
{
    return PPC_OK;
}

// NOLINTEND(concurrency-mt-unsafe)
