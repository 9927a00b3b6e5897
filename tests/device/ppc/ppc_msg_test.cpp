#include <cstdlib>
#include <functional>
#include <optional>

#include "driver_test.h"

namespace {

using namespace gaktest;
using testing::ElementsAre;
using testing::IsEmpty;

// Only the magic word of a session matters here.
struct BareSession {
    uint32_t words[8] = {PPC_SESSION_MAGIC};
    PpcSession* Handle() { return reinterpret_cast<PpcSession*>(words); }
};

PpcMsg* const kUntouched = reinterpret_cast<PpcMsg*>(0x1234);

class PpcMsgTest : public testing::Test {
protected:
    // Gives the descriptor another count, as a program that writes past its own memory might.
    static void SetCount(PpcMsg* msg, uint32_t count) { memcpy(static_cast<void*>(msg), &count, sizeof(count)); }

    BareSession session_;
    gaktest::LogCapture log_;
};

// ---- drvPpcAllocMsg ----

TEST_F(PpcMsgTest, NewDescriptorIsEmpty)
{
    const Message message(session_.Handle());
    EXPECT_EQ(message.Address(), nullptr);
    EXPECT_EQ(message.Length(), 0u);
    EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(PpcMsgTest, NewDescriptorIsZeroButForItsCount)
{
    const Message message(session_.Handle());
    uint32_t words[6];
    memcpy(words, static_cast<void*>(message.msg), sizeof(words));
    EXPECT_THAT(words, ElementsAre(1u, 0u, 0u, 0u, 0u, 0u));
}

TEST_F(PpcMsgTest, WholeBlockIsZeroed)
{
    CountingHook<calls::Malloc> mallocCalls;
    CountingHook<calls::MemsetS> memsetCalls;
    size_t allocated = 0;
    mallocCalls.OnCall([&](uint64_t, size_t size) -> std::optional<void*> {
        allocated = size;
        return std::nullopt;
    });
    std::vector<size_t> zeroed;
    memsetCalls.OnCall([&](uint64_t, void*, size_t destMax, int c, size_t count) -> std::optional<int> {
        zeroed = {destMax, static_cast<size_t>(c), count};
        return std::nullopt;
    });
    const Message message(session_.Handle());
    EXPECT_EQ(mallocCalls.Count(), 1u);
    EXPECT_THAT(zeroed, ElementsAre(allocated, 0u, allocated));
}

// Each case fails several checks: the first one in order speaks.
TEST_F(PpcMsgTest, AllocChecksItsArgumentsInOrder)
{
    BareSession wrong;
    wrong.words[0] = 0x12345678;
    BareSession zero;
    zero.words[0] = 0;
    PpcMsg* msg = kUntouched;
    struct {
        PpcSession* session;
        PpcMsg** ppMsg;
        int count;
        std::string message;
    } const cases[] = {{nullptr, nullptr, 2, "null session"},
                       {wrong.Handle(), nullptr, 2, "magic error(0x12345678)"},
                       {zero.Handle(), nullptr, 2, "magic error(0)"},
                       {session_.Handle(), nullptr, 2, "null ppMsg"},
                       {session_.Handle(), &msg, 2, "count just support 1, for future feature"},
                       {session_.Handle(), &msg, 0, "count just support 1, for future feature"},
                       {session_.Handle(), &msg, -1, "count just support 1, for future feature"}};
    CountingHook<calls::Malloc> mallocCalls;
    for (const auto& wanted : cases) {
        log_.Clear();
        EXPECT_EQ(drvPpcAllocMsg(wanted.session, wanted.ppMsg, wanted.count), PPC_ERR_INVALID_VALUE);
        EXPECT_THAT(log_.Lines(), ElementsAre(ErrorLine("drvPpcAllocMsg", wanted.message)));
    }
    EXPECT_EQ(mallocCalls.Count(), 0u);
    EXPECT_EQ(msg, kUntouched);
}

TEST_F(PpcMsgTest, AllocWithCountTwoLeavesTheHandleUnchanged)
{
    PpcMsg* msg = kUntouched;
    EXPECT_EQ(drvPpcAllocMsg(session_.Handle(), &msg, 2), PPC_ERR_INVALID_VALUE);
    EXPECT_EQ(msg, kUntouched);
}

TEST_F(PpcMsgTest, AllocWithoutMemoryGives40)
{
    CountingHook<calls::Malloc> mallocCalls;
    mallocCalls.FailCall(1, nullptr, ENOMEM);
    PpcMsg* msg = kUntouched;
    EXPECT_EQ(drvPpcAllocMsg(session_.Handle(), &msg, 1), PPC_ERR_NO_MEMORY);
    EXPECT_THAT(log_.Lines(), ElementsAre(ErrorLine("drvPpcAllocMsg", "malloc fail")));
    EXPECT_EQ(msg, kUntouched);
}

TEST_F(PpcMsgTest, AllocWithFailingMemsetFreesTheBlock)
{
    CountingHook<calls::MemsetS> memsetCalls;
    memsetCalls.FailCall(1, -1, EOVERFLOW);
    const FreeCounter frees;
    PpcMsg* msg = kUntouched;
    EXPECT_EQ(drvPpcAllocMsg(session_.Handle(), &msg, 1), PPC_ERR_INVALID_VALUE);
    EXPECT_THAT(log_.Lines(),
                ElementsAre(ErrorLine("drvPpcAllocMsg", std::string("memset_s error: ") + strerror(EOVERFLOW) + ".")));
    EXPECT_EQ(frees.Count(), 1u);
    EXPECT_EQ(msg, kUntouched);
}

// ---- Bad descriptors ----

TEST_F(PpcMsgTest, NullDescriptorGives3)
{
    char byte = 0;
    void* buffer = &byte;
    uint32_t length = 0;
    const struct {
        const char* function;
        std::function<int()> call;
    } cases[] = {{"drvPpcFreeMsg", [] { return drvPpcFreeMsg(nullptr); }},
                 {"drvPpcReuseMsg", [] { return drvPpcReuseMsg(nullptr); }},
                 {"drvPpcAddMsgBuffer", [] { return drvPpcAddMsgBuffer(nullptr, nullptr, 0); }},
                 {"drvPpcAddMsgBuffer", [&] { return drvPpcAddMsgBuffer(nullptr, &byte, 1); }},
                 {"drvPpcGetMsgBuffer", [] { return drvPpcGetMsgBuffer(nullptr, 1, nullptr, nullptr); }},
                 {"drvPpcGetMsgBuffer", [&] { return drvPpcGetMsgBuffer(nullptr, 0, &buffer, &length); }}};
    for (const auto& wanted : cases) {
        log_.Clear();
        EXPECT_EQ(wanted.call(), PPC_ERR_INVALID_VALUE);
        EXPECT_THAT(log_.Lines(), ElementsAre(ErrorLine(wanted.function, "null pMsg")));
    }
}

TEST_F(PpcMsgTest, CountOtherThanOneIsRefusedAndFreesNothing)
{
    const Message message(session_.Handle());
    char byte = 0;
    const struct {
        const char* function;
        std::function<int()> call;
    } cases[] = {{"drvPpcFreeMsg", [&] { return drvPpcFreeMsg(message.msg); }},
                 {"drvPpcReuseMsg", [&] { return drvPpcReuseMsg(message.msg); }},
                 {"drvPpcAddMsgBuffer", [&] { return drvPpcAddMsgBuffer(message.msg, &byte, 1); }}};
    const FreeCounter frees;
    for (const auto& [count, text] : {std::pair(2u, "2"), std::pair(0u, "0"), std::pair(0xFFFFFFFFu, "-1")}) {
        SetCount(message.msg, count);
        for (const auto& wanted : cases) {
            log_.Clear();
            EXPECT_EQ(wanted.call(), PPC_ERR_INVALID_VALUE);
            EXPECT_THAT(log_.Lines(),
                        ElementsAre(ErrorLine(wanted.function, std::string("invalid pMsg->count ") + text)));
        }
    }
    EXPECT_EQ(frees.Count(), 0u);
    SetCount(message.msg, 1);
    EXPECT_EQ(message.Address(), nullptr);
}

TEST_F(PpcMsgTest, GetDoesNotCheckTheCount)
{
    char byte = 0;
    const Message message(session_.Handle());
    ASSERT_EQ(drvPpcAddMsgBuffer(message.msg, &byte, 1), PPC_OK);
    SetCount(message.msg, 5);
    EXPECT_EQ(message.Address(), &byte);
    SetCount(message.msg, 1);
}

// ---- drvPpcAddMsgBuffer ----

TEST_F(PpcMsgTest, AddedBufferIsHandedOutAsItWasGiven)
{
    char buffer[3] = {};
    const Message message(session_.Handle());
    EXPECT_EQ(drvPpcAddMsgBuffer(message.msg, buffer, sizeof(buffer)), PPC_OK);
    EXPECT_EQ(message.Address(), buffer);
    EXPECT_EQ(message.Length(), 3u);
    EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(PpcMsgTest, SecondBufferGives6AndKeepsTheFirst)
{
    char first[3] = {};
    char second[5] = {};
    const Message message(session_.Handle());
    ASSERT_EQ(drvPpcAddMsgBuffer(message.msg, first, sizeof(first)), PPC_OK);
    EXPECT_EQ(drvPpcAddMsgBuffer(message.msg, second, sizeof(second)), PPC_ERR_NO_RESOURCE);
    EXPECT_THAT(log_.Lines(), ElementsAre(ErrorLine("drvPpcAddMsgBuffer", "no available msg BD")));
    EXPECT_EQ(message.Address(), first);
    EXPECT_EQ(message.Length(), 3u);
}

TEST_F(PpcMsgTest, AddChecksItsArgumentsInOrder)
{
    char byte = 0;
    const Message message(session_.Handle());
    ASSERT_EQ(drvPpcAddMsgBuffer(message.msg, &byte, 1), PPC_OK);
    SetCount(message.msg, 2);
    const struct {
        void* buffer;
        int length;
        const char* text;
    } cases[] = {{nullptr, 0, "null pBuf"}, {&byte, 0, "len(0) illegal"}, {&byte, 1, "invalid pMsg->count 2"}};
    for (const auto& wanted : cases) {
        log_.Clear();
        EXPECT_EQ(drvPpcAddMsgBuffer(message.msg, wanted.buffer, wanted.length), PPC_ERR_INVALID_VALUE);
        EXPECT_THAT(log_.Lines(), ElementsAre(ErrorLine("drvPpcAddMsgBuffer", wanted.text)));
    }
    SetCount(message.msg, 1);
}

TEST_F(PpcMsgTest, LengthBelowOneGives3AndAttachesNothing)
{
    char byte = 0;
    const Message message(session_.Handle());
    for (const int length : {0, -1, -2147483647 - 1}) {
        log_.Clear();
        EXPECT_EQ(drvPpcAddMsgBuffer(message.msg, &byte, length), PPC_ERR_INVALID_VALUE);
        EXPECT_THAT(log_.Lines(), ElementsAre(ErrorLine("drvPpcAddMsgBuffer", "len(0) illegal")));
    }
    EXPECT_EQ(message.Address(), nullptr);
    EXPECT_EQ(message.Length(), 0u);
}

// ---- drvPpcGetMsgBuffer ----

// Each case fails several checks: the first one in order speaks.
TEST_F(PpcMsgTest, GetChecksItsArgumentsInOrder)
{
    const Message message(session_.Handle());
    void* buffer = this;
    uint32_t length = 9;
    const struct {
        int index;
        void** ppBuf;
        uint32_t* pLen;
        const char* text;
    } cases[] = {{1, nullptr, nullptr, "null ppBuf"},
                 {1, &buffer, nullptr, "null pLen"},
                 {1, &buffer, &length, "index just support 1, for future feature"},
                 {-1, &buffer, &length, "index just support 1, for future feature"}};
    for (const auto& wanted : cases) {
        log_.Clear();
        EXPECT_EQ(drvPpcGetMsgBuffer(message.msg, wanted.index, wanted.ppBuf, wanted.pLen), PPC_ERR_INVALID_VALUE);
        EXPECT_THAT(log_.Lines(), ElementsAre(ErrorLine("drvPpcGetMsgBuffer", wanted.text)));
    }
    EXPECT_EQ(buffer, this);
    EXPECT_EQ(length, 9u);
}

// ---- Who frees what ----

TEST_F(PpcMsgTest, FreeLeavesTheCallersBuffer)
{
    const FreeCounter frees;
    auto* buffer = static_cast<char*>(malloc(4));
    {
        const Message message(session_.Handle());
        ASSERT_EQ(drvPpcAddMsgBuffer(message.msg, buffer, 4), PPC_OK);
    }
    EXPECT_EQ(frees.Count(), 1u) << "the descriptor only";
    buffer[3] = 'x';
    free(buffer);
}

TEST_F(PpcMsgTest, ReuseLeavesTheCallersBufferAndEmptiesTheDescriptor)
{
    const FreeCounter frees;
    char first[4] = {};
    char second[6] = {};
    const Message message(session_.Handle());
    ASSERT_EQ(drvPpcAddMsgBuffer(message.msg, first, sizeof(first)), PPC_OK);
    EXPECT_EQ(drvPpcReuseMsg(message.msg), PPC_OK);
    EXPECT_EQ(frees.Count(), 0u);
    EXPECT_EQ(message.Address(), nullptr);
    EXPECT_EQ(message.Length(), 0u);
    EXPECT_EQ(drvPpcAddMsgBuffer(message.msg, second, sizeof(second)), PPC_OK);
    EXPECT_EQ(message.Address(), second);
    EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(PpcMsgTest, ReuseOfAnEmptyDescriptorIsHarmless)
{
    const Message message(session_.Handle());
    EXPECT_EQ(drvPpcReuseMsg(message.msg), PPC_OK);
    EXPECT_EQ(drvPpcReuseMsg(message.msg), PPC_OK);
    EXPECT_EQ(message.Address(), nullptr);
}

// With a message that the driver received, whose buffer the descriptor owns.
class ReceivedMsgTest : public DriverTest {
protected:
    ReceivedMsgTest() : message_(std::make_unique<Message>(connection_.session))
    {
        EXPECT_TRUE(gaktest::WriteAll(connection_.peer, gaktest::FrameBytes({1, 2, 3})));
        uint32_t count = 0;
        EXPECT_EQ(drvPpcRecv(connection_.session, message_->msg, 0, 0, &count), PPC_OK);
        log_.Clear();
    }

    Connection connection_;
    std::unique_ptr<Message> message_;
};

TEST_F(ReceivedMsgTest, FreeFreesTheReceivedBuffer)
{
    const FreeCounter frees;
    message_.reset();
    EXPECT_EQ(frees.Count(), 2u) << "the buffer and the descriptor";
}

TEST_F(ReceivedMsgTest, ReuseFreesTheReceivedBufferOnce)
{
    const FreeCounter frees;
    EXPECT_EQ(drvPpcReuseMsg(message_->msg), PPC_OK);
    EXPECT_EQ(frees.Count(), 1u);
    EXPECT_EQ(message_->Address(), nullptr);
    EXPECT_EQ(message_->Length(), 0u);
    message_.reset();
    EXPECT_EQ(frees.Count(), 2u);
}

TEST_F(ReceivedMsgTest, BufferAttachedAfterReuseStaysTheCallers)
{
    char buffer[4] = {};
    ASSERT_EQ(drvPpcReuseMsg(message_->msg), PPC_OK);
    ASSERT_EQ(drvPpcAddMsgBuffer(message_->msg, buffer, sizeof(buffer)), PPC_OK);
    const FreeCounter frees;
    message_.reset();
    EXPECT_EQ(frees.Count(), 1u);
}

TEST_F(ReceivedMsgTest, RefusedSecondBufferKeepsTheReceivedOneOwned)
{
    char buffer[4] = {};
    EXPECT_EQ(drvPpcAddMsgBuffer(message_->msg, buffer, sizeof(buffer)), PPC_ERR_NO_RESOURCE);
    EXPECT_EQ(message_->Content(), Bytes({1, 2, 3}));
    const FreeCounter frees;
    message_.reset();
    EXPECT_EQ(frees.Count(), 2u);
}

}  // namespace
