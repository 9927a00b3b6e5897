#include "ppc_interface.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <new>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "driver_calls.h"
#include "fault.h"
#include "log_capture.h"
#include "log_lines.h"
#include "process.h"
#include "raw_peer.h"
#include "tracer.h"

namespace {

using namespace std::chrono_literals;
using namespace gaktest;
using qel::PpcInterface;
using qel::PPCMessage;
using testing::ElementsAre;
namespace calls = gaktest::calls;

constexpr uint32_t kOk = 0x1011000;
constexpr int kServerId = 4711;

struct NewArray : calls::OfGakppc {
    static constexpr const char* kSymbol = "_ZnamRKSt9nothrow_t";
    using Signature = void*(size_t, const std::nothrow_t&);
};
struct DeleteArray : calls::OfGakppc {
    static constexpr const char* kSymbol = "_ZdaPv";
    using Signature = void(void*);
};
struct Free : calls::OfGakppc {
    static constexpr const char* kSymbol = "free";
    using Signature = void(void*);
};
struct EncodedSize : calls::OfGakppc {
    static constexpr const char* kSymbol = "_ZNK3qel10PPCMessage12ByteSizeLongEv";
    using Signature = size_t(const PPCMessage*);
};
struct Serialize : calls::OfGakppc {
    static constexpr const char* kSymbol = "_ZNK6google8protobuf11MessageLite23SerializePartialToArrayEPvi";
    using Signature = bool(const google::protobuf::MessageLite*, void*, int);
};
struct Parse : calls::OfGakppc {
    static constexpr const char* kSymbol = "_ZN6google8protobuf11MessageLite14ParseFromArrayEPKvi";
    using Signature = bool(google::protobuf::MessageLite*, const void*, int);
};

// A void function cannot be given another result, only counted.
class CallCount {
public:
    template <typename Call>
    static uint64_t& Of()
    {
        static uint64_t count = 0;
        return count;
    }
};

template <typename Call>
class ReleaseHook {
public:
    ReleaseHook() : hook_(Call::kSymbol, reinterpret_cast<void*>(&Counted))
    {
        original_ = hook_.template original<void (*)(void*)>();
        CallCount::Of<Call>() = 0;
    }
    uint64_t Count() const { return CallCount::Of<Call>(); }

private:
    static void Counted(void* block)
    {
        ++CallCount::Of<Call>();
        original_(block);
    }

    inline static void (*original_)(void*) = nullptr;
    gaktest::ImportHook hook_;
};

// Whether the library has released as many blocks as it has taken, payload buffers and driver records alike.
class Balance {
public:
    ~Balance()
    {
        EXPECT_EQ(newArray.Count(), deleteArray.Count());
        EXPECT_EQ(allocations.Count(), releases.Count());
    }

    CountingHook<NewArray> newArray;
    ReleaseHook<DeleteArray> deleteArray;
    CountingHook<calls::Malloc> allocations;
    ReleaseHook<Free> releases;
};

PPCMessage Message(const RawMessage& raw)
{
    PPCMessage msg;
    msg.set_type(static_cast<PPCMessage::MsgType>(raw.type));
    msg.set_src_id(raw.src_id);
    msg.set_dest_id(raw.dest_id);
    msg.set_proc_type(static_cast<PPCMessage::ProcessType>(raw.proc_type));
    msg.set_sub_proc_pid(raw.sub_proc_pid);
    msg.set_host_pid(raw.host_pid);
    for (const std::string& name : raw.lib_names.value_or(std::vector<std::string>{})) {
        msg.mutable_lib_names()->add_lib_name(name);
    }
    return msg;
}

const RawMessage kFullMessage{3, 2, 19280, 1, 4242, 77, std::vector<std::string>{"liba.so", "b"}};
// The encoding of kFullMessage.
const Bytes kFullEncoding = {0x08, 0x03, 0x10, 0x02, 0x18, 0xD0, 0x96, 0x01, 0x20, 0x01, 0x28, 0x92, 0x21, 0x30, 0x4D,
                             0x3A, 0x0C, 0x0A, 0x07, 'l',  'i',  'b',  'a',  '.',  's',  'o',  0x0A, 0x01, 'b'};

Bytes Joined(Bytes first, const Bytes& second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

// A session of the driver, and its peer.
class PpcInterfaceTest : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(ppcInit(), 0);
        ASSERT_EQ(drvPpcServerCreate(kServerId, &endpoint_), PPC_OK);
        peer_ = gaktest::RawConnect(kServerId);
        ASSERT_TRUE(peer_.valid());
        ASSERT_EQ(drvPpcSessionAccept(endpoint_, &session_), PPC_OK);
        log_.Clear();
    }
    void TearDown() override
    {
        drvPpcSessionClose(session_);
        drvPpcServerDestroy(endpoint_);
    }

    uint32_t Send(const RawMessage& raw = {}) { return codec_.SendMsg(session_, Message(raw)); }
    uint32_t Receive() { return codec_.RecvMsg(session_, received_); }
    uint32_t ReceivePayload(const Bytes& payload)
    {
        EXPECT_TRUE(WriteAll(peer_, gaktest::FrameBytes(payload)));
        return Receive();
    }
    // Whether the session still carries frames and nothing was sent before.
    void ExpectNothingWasSent()
    {
        EXPECT_EQ(Send({2, 0, 0, 0, 9, 0, {}}), kOk);
        EXPECT_EQ(gaktest::ReadPpcFrame(peer_, 5s), (RawMessage{2, 0, 0, 0, 9, 0, {}}));
    }

    gaktest::LogCapture log_;
    PpcInterface codec_;
    PpcServerHead* endpoint_ = nullptr;
    PpcSession* session_ = nullptr;
    Fd peer_;
    PPCMessage received_;
};

std::string SentLine(size_t size, uint32_t pid)
{
    return Plain("SendMsg", "PpcInterface::SendMsg, size=" + std::to_string(size) + ", subpid=" + std::to_string(pid));
}

std::string ReceivedLine(size_t size, uint32_t pid)
{
    return Plain("RecvMsg", "PpcInterface::RecvMsg, size=" + std::to_string(size) + ", subpid=" + std::to_string(pid));
}

// ---- The class ----

TEST(PpcInterfaceClassTest, HasAVirtualDestructorAndNoData)
{
    EXPECT_TRUE(std::has_virtual_destructor_v<PpcInterface>);
    EXPECT_EQ(sizeof(PpcInterface), sizeof(void*));
}

// ---- Sending ----

TEST_F(PpcInterfaceTest, EmptyMessageIsAFrameOfEightBytes)
{
    EXPECT_EQ(Send(), kOk);
    EXPECT_EQ(Hex(gaktest::ReadExactly(peer_, 8, 5s)), "00 00 00 04 00 00 00 00");
    drvPpcSessionClose(session_);
    EXPECT_TRUE(gaktest::ExpectEof(peer_, 5s));
}

TEST_F(PpcInterfaceTest, OuterLengthIsBigEndianAndInnerLengthLittleEndian)
{
    EXPECT_EQ(Send(kFullMessage), kOk);
    const Bytes expected = Joined({0, 0, 0, 33, 29, 0, 0, 0}, kFullEncoding);
    EXPECT_EQ(Hex(gaktest::ReadExactly(peer_, expected.size(), 5s)), Hex(expected));
}

TEST_F(PpcInterfaceTest, InnerLengthFillsItsHigherBytes)
{
    const RawMessage raw{0, 0, 0, 0, 0, 0, std::vector<std::string>{std::string(70000, 'x')}};
    EXPECT_EQ(Send(raw), kOk);
    const std::optional<Bytes> payload = gaktest::ReadFrame(peer_, 5s);
    ASSERT_TRUE(payload.has_value());
    EXPECT_EQ(Hex(*payload), Hex(gaktest::PpcPayload(raw)));
}

TEST_F(PpcInterfaceTest, MessageLargerThanTheSocketBufferArrivesWhole)
{
    const RawMessage raw{0, 0, 0, 0, 5, 0, std::vector<std::string>{std::string(4U << 20, 'y')}};
    auto sent = std::async(std::launch::async, [&] { return Send(raw); });
    EXPECT_TRUE(gaktest::ReadPpcFrame(peer_, 20s) == raw);
    EXPECT_EQ(sent.get(), kOk);
}

TEST_F(PpcInterfaceTest, SendingLogsSizeAndSubProcPid)
{
    EXPECT_EQ(Send(kFullMessage), kOk);
    EXPECT_THAT(CodecLines(log_), ElementsAre(SentLine(29, 4242)));
}

TEST_F(PpcInterfaceTest, SendingTakesOneBufferOfThePayloadSizeAndReleasesAll)
{
    Balance balance;
    size_t size = 0;
    balance.newArray.OnCall([&size](uint64_t, size_t asked, const std::nothrow_t&) -> std::optional<void*> {
        size = asked;
        return std::nullopt;
    });
    EXPECT_EQ(Send(kFullMessage), kOk);
    EXPECT_EQ(balance.newArray.Count(), 1u);
    EXPECT_EQ(size, kFullEncoding.size() + 4);
}

TEST_F(PpcInterfaceTest, NullSessionIsRefused)
{
    EXPECT_EQ(codec_.SendMsg(nullptr, Message({0, 2, 19280, 0, 0, 0, {}})), 0x1093036u);
    EXPECT_THAT(CodecLines(log_),
                ElementsAre(WithStatus(0x1093036, "SendMsg",
                                       "[GAKPPCIF] SendMsg() serverId-19280  src_devid 2 ppcSession is not existed")));
}

struct SizeCase {
    const char* name;
    size_t encoded;
    uint32_t status;
    const char* message;
};

std::ostream& operator<<(std::ostream& out, const SizeCase& param)
{
    return out << param.name;
}

class PpcInterfaceSizeTest : public PpcInterfaceTest, public testing::WithParamInterface<SizeCase> {};

TEST_P(PpcInterfaceSizeTest, TooLongMessageIsRefusedBeforeAnythingIsSent)
{
    {
        Balance balance;
        CountingHook<EncodedSize> size;
        CountingHook<DriverSend> sends;
        size.OnCall([](uint64_t, const PPCMessage*) { return std::optional<size_t>(GetParam().encoded); });
        EXPECT_EQ(Send({0, 0, 0, 0, 8, 0, {}}), GetParam().status);
        EXPECT_EQ(sends.Count(), 0u);
        EXPECT_EQ(balance.newArray.Count(), 0u);
    }
    EXPECT_THAT(CodecLines(log_), ElementsAre(SentLine(GetParam().encoded, 8),
                                              WithStatus(GetParam().status, "SendMsg", GetParam().message)));
    ExpectNothingWasSent();
}

INSTANTIATE_TEST_SUITE_P(Sizes, PpcInterfaceSizeTest,
                         testing::Values(SizeCase{"OneAboveTheLimit", 0x1FFFFFFD, 0x1013007,
                                                  "[GAKPPCIF] SendMsg() msgBuffer is nullptr error"},
                                         SizeCase{"LargestThatDoesNotOverflow", 0xFFFFFFFA, 0x1013007,
                                                  "[GAKPPCIF] SendMsg() msgBuffer is nullptr error"},
                                         SizeCase{"SmallestThatOverflows", 0xFFFFFFFB, 0x1013008,
                                                  "Integer reversed addA: 4294967291 + addB: 4"},
                                         SizeCase{"Largest", 0xFFFFFFFF, 0x1013008,
                                                  "Integer reversed addA: 4294967295 + addB: 4"}),
                         [](const testing::TestParamInfo<SizeCase>& param) { return param.param.name; });

TEST_F(PpcInterfaceTest, LongestMessageGetsItsBuffer)
{
    CountingHook<EncodedSize> size;
    size.OnCall([](uint64_t, const PPCMessage*) { return std::optional<size_t>(0x1FFFFFFC); });
    CountingHook<NewArray> newArray;
    size_t asked = 0;
    newArray.OnCall([&asked](uint64_t, size_t bytes, const std::nothrow_t&) {
        asked = bytes;
        return std::optional<void*>(nullptr);  // half a GiB would only slow the test down
    });
    EXPECT_EQ(Send(), 0x1013007u);
    EXPECT_EQ(asked, 0x20000000u);
}

TEST_F(PpcInterfaceTest, NoMemoryForThePayloadIsReported)
{
    {
        Balance balance;
        balance.newArray.FailCall(1, nullptr, ENOMEM);
        EXPECT_EQ(Send(), 0x1013007u);
        // Nothing was taken: the failed call counts, but has nothing to give back.
        EXPECT_EQ(balance.deleteArray.Count(), 0u);
        balance.newArray.Reset();
    }
    EXPECT_THAT(CodecLines(log_),
                ElementsAre(SentLine(0, 0),
                            WithStatus(0x1013007, "SendMsg", "[GAKPPCIF] SendMsg() msgBuffer is nullptr error")));
    ExpectNothingWasSent();
}

TEST_F(PpcInterfaceTest, PayloadThatCannotBeZeroedIsReleased)
{
    {
        Balance balance;
        CountingHook<calls::MemsetS> zeroing;
        zeroing.FailCall(1, -1, 0);
        EXPECT_EQ(Send(), 0x1013007u);
    }
    EXPECT_THAT(CodecLines(log_),
                ElementsAre(SentLine(0, 0),
                            WithStatus(0x1013007, "SendMsg", "[GAKPPCIF] SendMsg() msgBuffer is nullptr error")));
    ExpectNothingWasSent();
}

TEST_F(PpcInterfaceTest, ResultOfEncodingIsNotChecked)
{
    CountingHook<Serialize> serialize;
    serialize.FailCall(1, false, 0);
    EXPECT_EQ(Send({1, 0, 0, 0, 0, 0, {}}), kOk);
    EXPECT_EQ(Hex(gaktest::ReadExactly(peer_, 10, 5s)), "00 00 00 06 02 00 00 00 00 00");
}

TEST_F(PpcInterfaceTest, SendingUsesOneDescriptorAndFlagZero)
{
    Bytes sent;
    CountingHook<DriverAllocMsg> alloc;
    alloc.OnCall([this](uint64_t, PpcSession* session, PpcMsg** msg, int count) -> std::optional<int> {
        EXPECT_EQ(session, session_);
        EXPECT_EQ(*msg, nullptr);
        EXPECT_EQ(count, 1);
        return std::nullopt;
    });
    CountingHook<DriverAddMsgBuffer> add;
    add.OnCall([&sent](uint64_t, PpcMsg*, void* buffer, int size) -> std::optional<int> {
        sent.assign(static_cast<uint8_t*>(buffer), static_cast<uint8_t*>(buffer) + size);
        return std::nullopt;
    });
    CountingHook<DriverSend> send;
    send.OnCall([this](uint64_t, PpcSession* session, PpcMsg*, uint32_t flag) -> std::optional<int> {
        EXPECT_EQ(session, session_);
        EXPECT_EQ(flag, 0u);
        return std::nullopt;
    });
    EXPECT_EQ(Send(kFullMessage), kOk);
    EXPECT_EQ(alloc.Count(), 1u);
    EXPECT_EQ(send.Count(), 1u);
    EXPECT_EQ(Hex(sent), Hex(Joined({29, 0, 0, 0}, kFullEncoding)));
}

TEST_F(PpcInterfaceTest, SendWithoutADescriptorFails)
{
    {
        Balance balance;
        CountingHook<DriverAllocMsg> alloc;
        alloc.FailCall(1, PPC_OK, 0);  // success, but nothing stored
        EXPECT_EQ(Send(), 0x1093039u);
    }
    EXPECT_THAT(CodecLines(log_),
                ElementsAre(SentLine(0, 0),
                            WithStatus(0x1093039, "SendMsg", "[GAKPPCIF] SendMsg() Alloc memory for PPCMessage fail")));
    ExpectNothingWasSent();
}

TEST_F(PpcInterfaceTest, SendLooksAtTheDescriptorAndNotAtTheResultOfItsAllocation)
{
    const FailingHook<DriverAllocMsg> alloc(PPC_ERR_NO_MEMORY);
    EXPECT_EQ(Send(), kOk);
    EXPECT_EQ(gaktest::ReadPpcFrame(peer_, 5s), RawMessage{});
}

template <typename Call>
void ExpectSendFails(const std::function<uint32_t()>& send, const gaktest::LogCapture& log, uint32_t status,
                     const char* message)
{
    {
        Balance balance;
        CountingHook<DriverFreeMsg> releases;
        {
            const FailingHook<Call> failing(PPC_ERR_NO_RESOURCE);
            EXPECT_EQ(send(), status);
        }
        EXPECT_EQ(releases.Count(), 1u);
    }
    EXPECT_THAT(CodecLines(log), ElementsAre(SentLine(0, 0), WithStatus(status, "SendMsg", message)));
}

TEST_F(PpcInterfaceTest, SendFailsWhenTheBufferIsRefused)
{
    ExpectSendFails<DriverAddMsgBuffer>([this] { return Send(); }, log_, 0x1093034,
                                        "[GAKPPCIF] SendMsg() add msg buffer fail");
}

TEST_F(PpcInterfaceTest, SendFailsWhenTheDriverCannotSend)
{
    ExpectSendFails<DriverSend>([this] { return Send(); }, log_, 0x1093037,
                                "[GAKPPCIF] SendMsg() Send message buffer fail");
}

TEST_F(PpcInterfaceTest, SendReportsThatTheDescriptorCouldNotBeFreed)
{
    {
        Balance balance;
        const FailingHook<DriverFreeMsg> failing(PPC_ERR_INVALID_VALUE);
        EXPECT_EQ(Send(), 0x1093038u);
        EXPECT_EQ(failing.Count(), 1u);
    }
    EXPECT_THAT(CodecLines(log_), ElementsAre(SentLine(0, 0), WithStatus(0x1093038, "SendMsg",
                                                                         "[GAKPPCIF] SendMsg() drvPpcFreeMsg fail")));
}

TEST_F(PpcInterfaceTest, SendToAClosedPeerFailsWithoutASignal)
{
    peer_.Reset();
    Balance balance;
    EXPECT_EQ(Send(), 0x1093037u);
    EXPECT_EQ(Send(), 0x1093037u);
    EXPECT_EQ(log_.Count("SendMsg() Send message buffer fail"), 2u);
}

TEST_F(PpcInterfaceTest, SendToAnEndedSessionFails)
{
    ASSERT_EQ(drvPpcSessionClose(session_), PPC_OK);
    EXPECT_EQ(Send(), 0x1093037u);
}

TEST_F(PpcInterfaceTest, FramesOfSeveralSendersNeverMix)
{
    constexpr uint32_t kSenders = 4;
    constexpr uint32_t kFrames = 20;
    const auto messageOf = [](uint32_t sender, uint32_t number) {
        const std::string filling(30000 + 1000 * sender, static_cast<char>('a' + sender));
        return RawMessage{0, sender, number, 0, 1, 0, std::vector<std::string>{filling}};
    };
    std::vector<std::future<void>> senders;
    for (uint32_t sender = 0; sender < kSenders; ++sender) {
        senders.push_back(std::async(std::launch::async, [&, sender] {
            for (uint32_t number = 1; number <= kFrames; ++number) {
                EXPECT_EQ(Send(messageOf(sender, number)), kOk);
            }
        }));
    }
    std::vector<uint32_t> last(kSenders, 0);
    for (uint32_t frame = 0; frame < kSenders * kFrames; ++frame) {
        const std::optional<RawMessage> raw = gaktest::ReadPpcFrame(peer_, 20s);
        ASSERT_TRUE(raw.has_value());
        ASSERT_LT(raw->src_id, kSenders);
        ASSERT_TRUE(*raw == messageOf(raw->src_id, ++last[raw->src_id])) << "sender " << raw->src_id;
    }
}

// ---- Receiving ----

TEST_F(PpcInterfaceTest, ReceivedFrameIsDecoded)
{
    Balance balance;
    EXPECT_EQ(ReceivePayload(Joined({29, 0, 0, 0}, kFullEncoding)), kOk);
    EXPECT_EQ(received_.type(), PPCMessage::NOTIFY_VEXOINFO);
    EXPECT_EQ(received_.src_id(), 2u);
    EXPECT_EQ(received_.dest_id(), 19280u);
    EXPECT_EQ(received_.proc_type(), PPCMessage::COMPUTE);
    EXPECT_EQ(received_.sub_proc_pid(), 4242u);
    EXPECT_EQ(received_.host_pid(), 77u);
    EXPECT_THAT(received_.lib_names().lib_name(), ElementsAre("liba.so", "b"));
}

TEST_F(PpcInterfaceTest, ReceivingLogsSizeAndSubProcPid)
{
    EXPECT_EQ(ReceivePayload(Joined({29, 0, 0, 0}, kFullEncoding)), kOk);
    EXPECT_THAT(CodecLines(log_), ElementsAre(ReceivedLine(29, 4242)));
}

TEST_F(PpcInterfaceTest, EmptyMessageReplacesTheFormerContent)
{
    received_ = Message(kFullMessage);
    EXPECT_EQ(ReceivePayload({0, 0, 0, 0}), kOk);
    EXPECT_EQ(received_.ByteSizeLong(), 0u);
    EXPECT_FALSE(received_.has_lib_names());
}

TEST_F(PpcInterfaceTest, FramesOfAPeerProcessArriveInOrder)
{
    gaktest::ChildProcess peer([this] {
        for (uint32_t number = 1; number <= 3; ++number) {
            if (!WriteAll(peer_, gaktest::PpcFrame({0, number, 0, 0, 0, 0, {}}))) {
                return 1;
            }
        }
        return 0;
    });
    for (uint32_t number = 1; number <= 3; ++number) {
        EXPECT_EQ(Receive(), kOk);
        EXPECT_EQ(received_.src_id(), number);
    }
    EXPECT_TRUE(peer.WaitExit(5s).ExitedWith(0));
}

TEST_F(PpcInterfaceTest, FrameThatArrivesInPiecesIsDecoded)
{
    auto result = std::async(std::launch::async, [this] { return Receive(); });
    const Bytes frame = gaktest::PpcFrame(kFullMessage);
    EXPECT_TRUE(WriteAll(peer_, Bytes(frame.begin(), frame.begin() + 4)));
    for (auto byte = frame.begin() + 4; byte != frame.end(); ++byte) {
        EXPECT_TRUE(WriteAll(peer_, Bytes(byte, byte + 1)));
    }
    EXPECT_EQ(result.get(), kOk);
    EXPECT_EQ(received_.SerializeAsString(), std::string(kFullEncoding.begin(), kFullEncoding.end()));
}

TEST_F(PpcInterfaceTest, ReceivingAsksTheDriverForAMebibyte)
{
    CountingHook<DriverRecv> recv;
    recv.OnCall([this](uint64_t, PpcSession* session, PpcMsg*, uint32_t first, uint32_t second,
                       uint32_t* count) -> std::optional<int> {
        EXPECT_EQ(session, session_);
        EXPECT_EQ(first, 0x100000u);
        EXPECT_EQ(second, 0u);
        EXPECT_EQ(*count, 0u);
        return std::nullopt;
    });
    EXPECT_EQ(ReceivePayload({0, 0, 0, 0}), kOk);
    EXPECT_EQ(recv.Count(), 1u);
}

struct LengthCase {
    const char* name;
    Bytes payload;
    uint32_t status;
    const char* message;
};

std::ostream& operator<<(std::ostream& out, const LengthCase& param)
{
    return out << param.name;
}

class PpcInterfaceLengthTest : public PpcInterfaceTest, public testing::WithParamInterface<LengthCase> {};

TEST_P(PpcInterfaceLengthTest, InnerLengthThatDoesNotFitIsRefused)
{
    received_.set_host_pid(3);
    {
        Balance balance;
        EXPECT_EQ(ReceivePayload(GetParam().payload), GetParam().status);
    }
    EXPECT_THAT(CodecLines(log_), ElementsAre(WithStatus(GetParam().status, "RecvMsg", GetParam().message)));
    EXPECT_EQ(received_.host_pid(), 3u);
    // The frame has been consumed: the next one is read from its beginning.
    EXPECT_EQ(ReceivePayload({0, 0, 0, 0}), kOk);
}

INSTANTIATE_TEST_SUITE_P(
    Lengths, PpcInterfaceLengthTest,
    testing::Values(
        LengthCase{"OneLess", {1, 0, 0, 0, 0x08, 0x01}, 0x109303A, "[GAKPPCIF] receive buffer len:6, message_len:5"},
        LengthCase{"OneMore", {3, 0, 0, 0, 0x08, 0x01}, 0x109303A, "[GAKPPCIF] receive buffer len:6, message_len:7"},
        LengthCase{
            "BigEndian", {0, 0, 0, 2, 0x08, 0x01}, 0x109303A, "[GAKPPCIF] receive buffer len:6, message_len:33554436"},
        LengthCase{"LargestThatDoesNotOverflow",
                   {0xFA, 0xFF, 0xFF, 0xFF},
                   0x109303A,
                   "[GAKPPCIF] receive buffer len:4, message_len:-2"},
        LengthCase{"SmallestThatOverflows",
                   {0xFB, 0xFF, 0xFF, 0xFF},
                   0x1013008,
                   "Integer reversed addA: 4294967291 + addB: 4"},
        LengthCase{"Largest", {0xFF, 0xFF, 0xFF, 0xFF}, 0x1013008, "Integer reversed addA: 4294967295 + addB: 4"}),
    [](const testing::TestParamInfo<LengthCase>& param) { return param.param.name; });

// The inner length of such a payload is not there; the address sanitizer sees whoever reads it.
TEST_F(PpcInterfaceTest, PayloadOfThreeBytesOrFewerIsALengthMismatch)
{
    for (const Bytes& payload : {Bytes{0xFF}, Bytes{0xFF, 0xFF}, Bytes{0xFF, 0xFF, 0xFF}}) {
        Balance balance;
        EXPECT_EQ(ReceivePayload(payload), 0x109303Au);
        EXPECT_EQ(log_.Count(gaktest::LogSink::kError,
                             "[GAKPPCIF] receive buffer len:" + std::to_string(payload.size()) + ", message_len:"),
                  1u);
    }
}

TEST_F(PpcInterfaceTest, ZeroLengthFrameHasNoBufferAndStays)
{
    {
        Balance balance;
        EXPECT_EQ(ReceivePayload({}), 0x109303Bu);
    }
    EXPECT_THAT(CodecLines(log_),
                ElementsAre(WithStatus(0x109303B, "RecvMsg", "[GAKPPCIF] RecvMsg() Message buffer is null")));
    EXPECT_EQ(Receive(), 0x109303Bu);
}

// What receiving says of each driver result.
void ExpectReceiveFails(const std::function<uint32_t()>& receive, const gaktest::LogCapture& log, uint32_t status,
                        int driverResult)
{
    {
        Balance balance;
        EXPECT_EQ(receive(), status);
    }
    EXPECT_THAT(CodecLines(log), ElementsAre(WithStatus(0x1012003, "RecvMsg",
                                                        "[GAKPPCIF] drvPpcRecv fail " + std::to_string(driverResult))));
}

TEST_F(PpcInterfaceTest, PeerThatClosesBetweenMessagesIsReportedAsClosed)
{
    peer_.Reset();
    ExpectReceiveFails([this] { return Receive(); }, log_, 0x109303F, 25);
}

TEST_F(PpcInterfaceTest, PeerThatClosesInsideAPayloadIsAReceiveFailure)
{
    EXPECT_TRUE(WriteAll(peer_, {0, 0, 0, 9, 5, 0, 0, 0}));
    peer_.Reset();
    ExpectReceiveFails([this] { return Receive(); }, log_, 0x1093037, 26);
}

TEST_F(PpcInterfaceTest, PeerThatClosesInsideTheLengthFieldIsAReceiveFailure)
{
    EXPECT_TRUE(WriteAll(peer_, {0, 0, 0}));
    peer_.Reset();
    ExpectReceiveFails([this] { return Receive(); }, log_, 0x1093037, 3);
}

TEST_F(PpcInterfaceTest, ConnectionResetIsAReceiveFailureAndNotAClosedSocket)
{
    ASSERT_EQ(Send(), kOk);
    peer_.Reset();  // with a frame unread
    log_.Clear();
    ExpectReceiveFails([this] { return Receive(); }, log_, 0x1093037, 26);
}

TEST_F(PpcInterfaceTest, FrameAboveTheReceiveLimitIsAReceiveFailure)
{
    EXPECT_TRUE(WriteAll(peer_, {0x40, 0, 0, 1}));
    ExpectReceiveFails([this] { return Receive(); }, log_, 0x1093037, 6);
}

TEST_F(PpcInterfaceTest, NoMemoryForAReceivedFrameIsAReceiveFailure)
{
    EXPECT_TRUE(WriteAll(peer_, gaktest::PpcFrame(kFullMessage)));
    CountingHook<calls::Malloc> memory;
    memory.FailCall(2, nullptr, ENOMEM);
    EXPECT_EQ(Receive(), 0x1093037u);
    EXPECT_TRUE(log_.Has(gaktest::LogSink::kWarn, "[GAKPPCIF] drvPpcRecv fail 40"));
}

TEST_F(PpcInterfaceTest, EndedSessionReadsAsClosed)
{
    ASSERT_EQ(drvPpcSessionClose(session_), PPC_OK);
    EXPECT_EQ(Receive(), 0x109303Fu);
}

TEST_F(PpcInterfaceTest, ReceiveThatWaitsIsWokenWhenTheSessionEnds)
{
    CountingHook<calls::Recv> receives;
    std::promise<void> waiting;
    receives.OnCall([&waiting](uint64_t number, int, void*, size_t, int) -> std::optional<ssize_t> {
        if (number == 1) {
            waiting.set_value();
        }
        return std::nullopt;
    });
    auto result = std::async(std::launch::async, [this] { return Receive(); });
    waiting.get_future().wait();
    EXPECT_EQ(drvPpcSessionClose(session_), PPC_OK);
    EXPECT_EQ(result.get(), 0x109303Fu);
}

TEST_F(PpcInterfaceTest, ReceiveWithoutADescriptorFails)
{
    CountingHook<DriverAllocMsg> alloc;
    for (const int result : {PPC_OK, PPC_ERR_NO_MEMORY}) {
        alloc.FailFrom(1, result, 0);
        EXPECT_EQ(Receive(), 0x1093039u);
    }
    const std::string line = WithStatus(0x1093039, "RecvMsg", "[GAKPPCIF] drvPpcAllocMsg fail");
    EXPECT_THAT(CodecLines(log_), ElementsAre(line, line));
}

TEST_F(PpcInterfaceTest, ReceiveBelievesAFailedAllocationEvenWithADescriptor)
{
    PpcMsg* stored = nullptr;
    CountingHook<DriverAllocMsg> alloc;
    alloc.OnCall([&stored](uint64_t, PpcSession* session, PpcMsg** msg, int count) -> std::optional<int> {
        CountingHook<DriverAllocMsg>::Real(session, &stored, count);
        *msg = stored;
        return PPC_ERR_NO_MEMORY;
    });
    CountingHook<DriverRecv> receives;
    CountingHook<DriverFreeMsg> releases;
    EXPECT_EQ(Receive(), 0x1093039u);
    EXPECT_EQ(receives.Count(), 0u);
    EXPECT_EQ(releases.Count(), 0u);
    drvPpcFreeMsg(stored);
}

TEST_F(PpcInterfaceTest, ReceiveOnANullSessionFails)
{
    EXPECT_EQ(codec_.RecvMsg(nullptr, received_), 0x1093039u);
    EXPECT_THAT(CodecLines(log_), ElementsAre(WithStatus(0x1093039, "RecvMsg", "[GAKPPCIF] drvPpcAllocMsg fail")));
}

TEST_F(PpcInterfaceTest, ReceiveFailsWhenTheBufferCannotBeRead)
{
    {
        Balance balance;
        const FailingHook<DriverGetMsgBuffer> failing(PPC_ERR_INVALID_VALUE);
        EXPECT_EQ(ReceivePayload({0, 0, 0, 0}), 0x1093034u);
    }
    EXPECT_THAT(CodecLines(log_), ElementsAre(WithStatus(0x1093034, "RecvMsg", "[GAKPPCIF] drvPpcGetMsgBuffer fail")));
}

TEST_F(PpcInterfaceTest, ReceiveReportsThatTheDescriptorCouldNotBeFreed)
{
    {
        Balance balance;
        const FailingHook<DriverFreeMsg> failing(PPC_ERR_INVALID_VALUE);
        EXPECT_EQ(ReceivePayload({2, 0, 0, 0, 0x30, 0x05}), 0x1093038u);
        EXPECT_EQ(failing.Count(), 1u);
    }
    EXPECT_EQ(received_.host_pid(), 5u);
    EXPECT_THAT(
        CodecLines(log_),
        ElementsAre(ReceivedLine(2, 0), WithStatus(0x1093038, "RecvMsg", "[GAKPPCIF] RecvMsg() drvPpcFreeMsg fail")));
}

TEST_F(PpcInterfaceTest, FailedParseIsNotCheckedAndKeepsWhatWasParsed)
{
    // src_id 3 and sub_proc_pid 7, then a field whose number is cut off.
    EXPECT_EQ(ReceivePayload({5, 0, 0, 0, 0x10, 0x03, 0x28, 0x07, 0x30}), kOk);
    EXPECT_EQ(received_.src_id(), 3u);
    EXPECT_EQ(received_.sub_proc_pid(), 7u);
    EXPECT_THAT(CodecLines(log_), ElementsAre(ReceivedLine(4, 7)));
}

TEST_F(PpcInterfaceTest, NoMemoryForTheDecodedMessageIsReturnedAndNotRaised)
{
    CountingHook<Parse> parse;
    parse.OnCall([](uint64_t, google::protobuf::MessageLite*, const void*, int) -> std::optional<bool> {
        throw std::bad_alloc();
    });
    Balance balance;
    EXPECT_EQ(ReceivePayload({0, 0, 0, 0}), 0x1013007u);
    EXPECT_THAT(CodecLines(log_),
                ElementsAre(WithStatus(0x1013007, "RecvMsg", "[GAKPPCIF] RecvMsg() no memory for the message")));
}

// ---- Tracepoints ----

constexpr uint32_t kSendFailed = 0x1093037;

// A message at a tracepoint.
struct TracedHit {
    std::string line;  // "NAME TYPE DEVICE PID FD [STATUS]"
    TracedMessage message;
    Bytes payload;
    bool peerCanRead;
};

class PpcInterfaceTracepointTest : public PpcInterfaceTest {
protected:
    void SetUp() override
    {
        GAKPPC_SKIP_WITHOUT_TRACEPOINTS();
        PpcInterfaceTest::SetUp();
        memcpy(&fd_, reinterpret_cast<const char*>(session_) + sizeof(uint32_t), sizeof(fd_));
        tracer_.emplace(std::vector<std::string>{"message_sending", "message_sent", "message_received"},
                        [this](const TracepointHit& hit) { Take(hit); });
    }
    void TearDown() override
    {
        tracer_.reset();
        if (session_ != nullptr) {
            PpcInterfaceTest::TearDown();
        }
    }

    std::vector<std::string> Lines() const
    {
        std::vector<std::string> lines;
        for (const TracedHit& hit : hits_) {
            lines.push_back(hit.line);
        }
        return lines;
    }

    // The line of a message that says "TYPE DEVICE PID" of itself.
    std::string Sending(const std::string& message) const
    {
        return "message_sending " + message + " " + std::to_string(fd_);
    }
    std::string Sent(const std::string& message, uint32_t status = kOk) const
    {
        return "message_sent " + message + " " + std::to_string(fd_) + " " + std::to_string(status);
    }
    std::string Traced(const std::string& message, uint32_t status = kOk) const
    {
        return "message_received " + message + " " + std::to_string(fd_) + " " + std::to_string(status);
    }

    std::vector<TracedHit> hits_;
    int fd_ = -1;

private:
    void Take(const TracepointHit& hit)
    {
        TracedHit taken{hit.name, {}, {}, gaktest::WaitReadable(peer_, 0s)};
        for (size_t index = 0; index < hit.arguments.size(); ++index) {
            taken.line += index == 4 ? "" : " " + std::to_string(hit.arguments[index]);
        }
        // NOLINTNEXTLINE(performance-no-int-to-ptr): the argument is an address
        memcpy(&taken.message, reinterpret_cast<const void*>(hit.arguments.at(4)), sizeof(taken.message));
        // NOLINTNEXTLINE(performance-no-int-to-ptr): likewise
        const auto* payload = reinterpret_cast<const uint8_t*>(taken.message.payload);
        taken.payload.assign(payload, payload + taken.message.length);
        hits_.push_back(taken);
    }

    std::optional<Tracer> tracer_;
};

std::string Ids(const TracedMessage& message)
{
    return std::to_string(message.src_id) + " " + std::to_string(message.dest_id) + " " +
           std::to_string(message.proc_type);
}

TEST_F(PpcInterfaceTracepointTest, SentMessageIsTracedBeforeAndAfterTheWrite)
{
    EXPECT_EQ(Send(kFullMessage), kOk);
    EXPECT_THAT(Lines(), ElementsAre(Sending("3 2 4242"), Sent("3 2 4242")));
    EXPECT_FALSE(hits_[0].peerCanRead);
    EXPECT_TRUE(hits_[1].peerCanRead);
    for (const TracedHit& hit : hits_) {
        EXPECT_EQ(Ids(hit.message), "2 19280 1");
        EXPECT_EQ(Hex(hit.payload), Hex(Joined({29, 0, 0, 0}, kFullEncoding)));
    }
}

TEST_F(PpcInterfaceTracepointTest, DeviceOfAMessageToAWorkerIsItsDestination)
{
    EXPECT_EQ(Send({5, 1, 3, 2, 4242, 0, {}}), kOk);
    EXPECT_THAT(Lines(), ElementsAre(Sending("5 3 4242"), Sent("5 3 4242")));
    EXPECT_EQ(Ids(hits_[0].message), "1 3 2");
}

TEST_F(PpcInterfaceTracepointTest, FailedSendIsTracedWithItsStatus)
{
    peer_.Reset();
    EXPECT_EQ(Send(kFullMessage), kSendFailed);
    EXPECT_THAT(Lines(), ElementsAre(Sending("3 2 4242"), Sent("3 2 4242", kSendFailed)));
}

TEST_F(PpcInterfaceTracepointTest, EndedSessionIsTracedByItsFormerDescriptor)
{
    ASSERT_EQ(drvPpcSessionClose(session_), PPC_OK);
    EXPECT_EQ(Send(kFullMessage), kSendFailed);
    EXPECT_THAT(Lines(), ElementsAre(Sending("3 2 4242"), Sent("3 2 4242", kSendFailed)));
}

TEST_F(PpcInterfaceTracepointTest, SessionOfAnotherTransportHasNoDescriptor)
{
    struct {
        uint32_t magic = PPC_SESSION_MAGIC;
        uint32_t fields[7] = {};
    } foreign;
    CountingHook<DriverSend> send;
    send.FailCall(1, PPC_OK, 0);
    EXPECT_EQ(codec_.SendMsg(&foreign, Message(kFullMessage)), kOk);
    fd_ = -1;
    EXPECT_THAT(Lines(), ElementsAre(Sending("3 2 4242"), Sent("3 2 4242")));
}

TEST_F(PpcInterfaceTracepointTest, RefusedMessageIsNotTraced)
{
    EXPECT_NE(codec_.SendMsg(nullptr, Message(kFullMessage)), kOk);
    const FailingHook<DriverAddMsgBuffer> add(PPC_ERR_NO_RESOURCE);
    EXPECT_NE(Send(kFullMessage), kOk);
    EXPECT_THAT(Lines(), testing::IsEmpty());
}

TEST_F(PpcInterfaceTracepointTest, ReceivedMessageIsTraced)
{
    EXPECT_EQ(ReceivePayload(gaktest::PpcPayload(kFullMessage)), kOk);
    EXPECT_THAT(Lines(), ElementsAre(Traced("3 2 4242")));
    EXPECT_EQ(Ids(hits_[0].message), "2 19280 1");
    EXPECT_EQ(Hex(hits_[0].payload), Hex(Joined({29, 0, 0, 0}, kFullEncoding)));
}

TEST_F(PpcInterfaceTracepointTest, ReceivedNoMessageIsTracedWithItsBytesOnly)
{
    received_ = Message(kFullMessage);
    EXPECT_EQ(ReceivePayload({9, 0, 0, 0, 0x08, 0x01}), 0x109303Au);
    EXPECT_THAT(Lines(), ElementsAre(Traced("0 0 0", 0x109303A)));
    EXPECT_EQ(Ids(hits_[0].message), "0 0 0");
    EXPECT_EQ(Hex(hits_[0].payload), "09 00 00 00 08 01");
}

TEST_F(PpcInterfaceTracepointTest, UnfinishedFrameIsNotTraced)
{
    EXPECT_TRUE(WriteAll(peer_, {0, 0, 0, 8, 1}));
    peer_.Reset();
    EXPECT_NE(Receive(), kOk);
    EXPECT_THAT(Lines(), testing::IsEmpty());
}

}  // namespace
