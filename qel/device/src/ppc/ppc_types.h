#ifndef GAKPPC_PPC_TYPES_H
#define GAKPPC_PPC_TYPES_H

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "ppc.h"

// Public parts of the records: what handles point at. A private part stands in front of each.

struct PpcSession {
    uint32_t magic;
    std::atomic<int32_t> fd;
    uint32_t reserved[6];
};

struct PpcServerHead {
    std::atomic<int32_t> listenFd;
    void* link;
};

struct PpcMsgBd {
    void* buffer;
    int32_t length;
};

struct PpcMsg {
    uint32_t count;
    PpcMsgBd bd;
    uint32_t reserved[6];
};

namespace ppc {

constexpr uint32_t kBufferCount = 1;

inline std::atomic<int32_t>& DescriptorOf(PpcSession& session)
{
    return session.fd;
}

inline std::atomic<int32_t>& DescriptorOf(PpcServerHead& server)
{
    return server.listenFd;
}

inline void Initialize(PpcSession& session, int fd)
{
    session.magic = PPC_SESSION_MAGIC;
    session.fd = fd;
}

inline void Initialize(PpcServerHead& server, int fd)
{
    server.listenFd = fd;
}

// Private part in front of a message descriptor.
struct PpcMsgHead {
    uint8_t ownsBuffer;
};

struct MsgBlock {
    alignas(PpcMsg) PpcMsgHead head;
    PpcMsg msg;
};

inline MsgBlock* BlockOf(PpcMsg* msg)
{
    return reinterpret_cast<MsgBlock*>(reinterpret_cast<char*>(msg) - offsetof(MsgBlock, msg));
}

}  // namespace ppc

#endif
