#include "session_peer.h"

namespace tools {
namespace {

// Each session has a receive thread of its own, which also runs the handlers of its messages.
thread_local Peer peer;

}  // namespace

Peer SessionPeer()
{
    return peer;
}

void SetSessionPeer(int fd)
{
    peer = PeerOf(fd);
}

}  // namespace tools
