#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

#include "memguard.h"
#include "ppc.h"
#include "ppc_log.h"
#include "ppc_types.h"

// NOLINTBEGIN(concurrency-mt-unsafe): what it finds is strerror, whose text glibc keeps for each thread

namespace {

using ppc::BlockOf;
using ppc::kBufferCount;
using ppc::MsgBlock;

bool IsNull(const PpcMsg* msg, ppc::CallSite site)
{
    if (msg != nullptr) {
        return false;
    }
    PPC_ERROR(PPC_TEXT_AT(site, "null pMsg"));
    return true;
}

bool HasValidCount(const PpcMsg* msg, ppc::CallSite site)
{
    if (msg->count == kBufferCount) {
        return true;
    }
    PPC_ERROR(PPC_TEXT_AT(site, "invalid pMsg->count %d"), static_cast<int>(msg->count));
    return false;
}

void FreeOwnedBuffer(PpcMsg* msg)
{
    if (BlockOf(msg)->head.ownsBuffer != 0) {
        free(msg->bd.buffer);
        msg->bd.buffer = nullptr;
    }
}

}  // namespace

int drvPpcAllocMsg(PpcSession* session, PpcMsg** ppMsg, int count)
{
    if (session == nullptr) {
        PPC_ERROR(PPC_TEXT("null session"));
        return PPC_ERR_INVALID_VALUE;
    }
    if (session->magic != PPC_SESSION_MAGIC) {
        PPC_ERROR(PPC_TEXT("magic error(%#x)"), session->magic);
        return PPC_ERR_INVALID_VALUE;
    }
    if (ppMsg == nullptr) {
        PPC_ERROR(PPC_TEXT("null ppMsg"));
        return PPC_ERR_INVALID_VALUE;
    }
    if (count != static_cast<int>(kBufferCount)) {
        PPC_ERROR(PPC_TEXT("count just support 1, for future feature"));
        return PPC_ERR_INVALID_VALUE;
    }
    void* memory = malloc(sizeof(MsgBlock));
    if (memory == nullptr) {
        PPC_ERROR(PPC_TEXT("malloc fail"));
        return PPC_ERR_NO_MEMORY;
    }
    if (memset_s(memory, sizeof(MsgBlock), 0, sizeof(MsgBlock)) != 0) {
        free(memory);
        PPC_ERROR(PPC_LINE_AT(PPC_CALL_SITE, "memset_s error: %s.", "\n"), strerror(errno));
        return PPC_ERR_INVALID_VALUE;
    }
    MsgBlock* block = new (memory) MsgBlock;
    block->msg.count = kBufferCount;
    *ppMsg = &block->msg;
    return PPC_OK;
}

int drvPpcFreeMsg(PpcMsg* msg)
{
    if (IsNull(msg, PPC_CALL_SITE) || !HasValidCount(msg, PPC_CALL_SITE)) {
        return PPC_ERR_INVALID_VALUE;
    }
    FreeOwnedBuffer(msg);
    free(BlockOf(msg));
    return PPC_OK;
}

int drvPpcReuseMsg(PpcMsg* msg)
{
    if (IsNull(msg, PPC_CALL_SITE) || !HasValidCount(msg, PPC_CALL_SITE)) {
        return PPC_ERR_INVALID_VALUE;
    }
    FreeOwnedBuffer(msg);
    BlockOf(msg)->head.ownsBuffer = 0;
    msg->bd = PpcMsgBd{};
    return PPC_OK;
}

int drvPpcAddMsgBuffer(PpcMsg* msg, void* buf, int len)
{
    if (IsNull(msg, PPC_CALL_SITE)) {
        return PPC_ERR_INVALID_VALUE;
    }
    if (buf == nullptr) {
        PPC_ERROR(PPC_TEXT("null pBuf"));
        return PPC_ERR_INVALID_VALUE;
    }
    if (len < 1) {
        PPC_ERROR(PPC_TEXT("len(0) illegal"));
        return PPC_ERR_INVALID_VALUE;
    }
    if (!HasValidCount(msg, PPC_CALL_SITE)) {
        return PPC_ERR_INVALID_VALUE;
    }
    if (msg->bd.buffer != nullptr) {
        PPC_ERROR(PPC_TEXT("no available msg BD"));
        return PPC_ERR_NO_RESOURCE;
    }
    msg->bd.buffer = buf;
    msg->bd.length = len;
    return PPC_OK;
}

int drvPpcGetMsgBuffer(PpcMsg* msg, int index, void** ppBuf, uint32_t* pLen)
{
    if (IsNull(msg, PPC_CALL_SITE)) {
        return PPC_ERR_INVALID_VALUE;
    }
    if (ppBuf == nullptr) {
        PPC_ERROR(PPC_TEXT("null ppBuf"));
        return PPC_ERR_INVALID_VALUE;
    }
    if (pLen == nullptr) {
        PPC_ERROR(PPC_TEXT("null pLen"));
        return PPC_ERR_INVALID_VALUE;
    }
    if (index != 0) {
        PPC_ERROR(PPC_TEXT("index just support 1, for future feature"));
        return PPC_ERR_INVALID_VALUE;
    }
    *ppBuf = msg->bd.buffer;
    *pLen = static_cast<uint32_t>(msg->bd.length);
    return PPC_OK;
}

// NOLINTEND(concurrency-mt-unsafe)
