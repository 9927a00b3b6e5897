#include "session_peer.h"

#include <sys/stat.h>

namespace tools {
namespace {

// Each session has a receive thread of its own, which also runs the handlers of its messages.
thread_local Sender sender;

uint32_t SocketNumber(int fd)
{
    struct stat status {};
    return fstat(fd, &status) == 0 ? static_cast<uint32_t>(status.st_ino) : 0;
}

}  // namespace

Sender SessionPeer()
{
    return sender;
}

void SetSessionPeer(int fd)
{
    sender = {PeerOf(fd), SocketNumber(fd)};
}

}  // namespace tools
