#ifndef GAKPPC_PPC_TYPES_H
#define GAKPPC_PPC_TYPES_H

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "ppc.h"

// Public parts of the records: what handles point at. A private part stands in front of each.

struct PpcSession {
    explicit PpcSession(int descriptor) : fd(descriptor) {}

    uint32_t magic = PPC_SESSION_MAGIC;
    std::atomic<int32_t> fd;
    uint32_t reserved[6] = {};
};

struct PpcServerHead {
    explicit PpcServerHead(int descriptor) : fd(descriptor) {}

    std::atomic<int32_t> fd;  // listens
    void* link = nullptr;
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
