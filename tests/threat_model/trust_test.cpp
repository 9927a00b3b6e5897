// What a connected peer can make a daemon believe and do, and what it cannot.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <cstring>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "sanitizer_options.h"
#include "server_fixture.h"

namespace {

using namespace gaktest;
using qel::PPCMessage;
using testing::ElementsAre;

class TrustTest : public ServerTest {
protected:
    // Bytes that the process has on its heap, the kept log lines not counted.
    size_t HeapBytes()
    {
        log_.Clear();
        const struct mallinfo2 heap = mallinfo2();
        return heap.uordblks + heap.hblkhd;
    }
};

// ---- Who a peer is ----

TEST_F(TrustTest, ClaimedDeviceAndProcessIdAreBelieved)
{
    constexpr uint32_t kClaimedPid = 0x7FFFFFF0;  // no process has it
    WorkerProcess liar([](Fd& socket) {
        WriteAll(socket, PpcFrame(Report(2, kClaimedPid)));
        return ReadPpcFrame(socket, 20s) == RawMessage{5, 0, 2, 0, kClaimedPid, 0, {}} ? 0 : 1;
    });
    Handle(0);
    Create();
    liar.Start();
    ASSERT_TRUE(Inbox::WaitFor(1));
    EXPECT_THAT(Inbox::Messages(), ElementsAre(Report(2, kClaimedPid)));
    EXPECT_NE(static_cast<uint32_t>(liar.Process().pid()), kClaimedPid);
    EXPECT_EQ(server_.SendData(Order(2, kClaimedPid)), kOk);
    EXPECT_TRUE(liar.Process().WaitExit(20s).ExitedWith(0));
}

// A peer that uses another worker's name gets that worker's orders, until the worker sends again, and its own end is
// reported as that worker's.
TEST_F(TrustTest, PeerUnderAnotherWorkersNameReplacesIt)
{
    Handle(6);
    Create();
    const Fd honest = ConnectAs(1, 7);
    Fd liar = ConnectAs(1, 7);
    EXPECT_EQ(server_.SendData(Order(1, 7)), kOk);
    EXPECT_EQ(ReadPpcFrame(liar, 10s), (RawMessage{5, 0, 1, 0, 7, 0, {}}));
    EXPECT_FALSE(gaktest::WaitReadable(honest, 0s));

    liar.Reset();
    ASSERT_TRUE(WaitForExits(1));
    EXPECT_THAT(Inbox::Messages(), ElementsAre(Report(1, 7, 6)));
    EXPECT_EQ(server_.SendData(Order(1, 7)), 0x1093037u);

    Say(honest, Report(1, 7, 2));
    EXPECT_EQ(server_.SendData(Order(1, 7)), kOk);
    EXPECT_EQ(ReadPpcFrame(honest, 10s), (RawMessage{5, 0, 1, 0, 7, 0, {}}));
}

TEST_F(TrustTest, EveryPairThatAPeerReportsStaysInTheTable)
{
    constexpr uint32_t kPairs = 1000;
    Create();
    Fd peer = Connect();
    for (uint32_t pid = 1; pid <= kPairs; ++pid) {
        ASSERT_TRUE(WriteAll(peer, PpcFrame(Report(pid % 4, pid))));
    }
    peer.Reset();
    ASSERT_TRUE(WaitForExits(1));
    for (uint32_t pid = 1; pid <= kPairs; ++pid) {
        ASSERT_NE(server_.GetPpcSession(pid % 4, pid), nullptr) << pid;
    }
    EXPECT_EQ(server_.GetPpcSession(0, kPairs + 4), nullptr);
}

// ---- What a peer sends ----

TEST_F(TrustTest, PayloadThatIsNoMessageCountsAsTheStartOfDevice0)
{
    Handle(0);
    Create();
    const Fd peer = Connect();
    ASSERT_TRUE(WriteAll(peer, FrameBytes({3, 0, 0, 0, 0xFF, 0xFF, 0xFF})));
    ASSERT_TRUE(Inbox::WaitFor(1));
    EXPECT_THAT(Inbox::Messages(), ElementsAre(RawMessage{0, 0, 0, 0, 0, 0, {}}));
}

TEST_F(TrustTest, DestinationThatAPeerNamesMeansNothing)
{
    Handle(2);
    Create();
    const Fd bystander = ConnectAs(1, 7);
    const Fd peer = Connect();
    const RawMessage raw{2, 2, 1, 0, 7, 0, {}};  // from device 2 to the bystander
    Say(peer, raw);
    EXPECT_THAT(Inbox::Messages(), ElementsAre(raw));
    EXPECT_FALSE(gaktest::WaitReadable(bystander, 0s));
}

// Sends the bytes and a descriptor.
bool SendWithDescriptor(const Fd& socket, Bytes bytes, int descriptor)
{
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
    iovec data = {bytes.data(), bytes.size()};
    msghdr message = {};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof(int));
    memcpy(CMSG_DATA(header), &descriptor, sizeof(descriptor));
    return sendmsg(socket.get(), &message, MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

TEST_F(TrustTest, DescriptorsThatAPeerSendsAreDropped)
{
    Create();
    const Fd peer = ConnectAs(1, 7);
    const auto [kept, given] = gaktest::SocketPair();
    const size_t open = gaktest::OpenDescriptors();
    for (uint32_t number = 1; number <= 100; ++number) {
        ASSERT_TRUE(SendWithDescriptor(peer, PpcFrame(Report(1, 7, 2)), given.get()));
        ASSERT_TRUE(log_.WaitFor("##### [threadName:", 10s, number + 1));
    }
    EXPECT_EQ(gaktest::OpenDescriptors(), open);
}

TEST_F(TrustTest, TextOfAPeerIsNotLogged)
{
    Handle(3);
    Create();
    const Fd peer = Connect();
    Say(peer, {3, 1, kServerId, 1, 7, 0, std::vector<std::string>{"%n%s intruder\n[ERROR] forged"}});
    ASSERT_EQ(Inbox::Messages().size(), 1u);
    EXPECT_EQ(log_.Count("intruder"), 0u);
    EXPECT_EQ(log_.Count("forged"), 0u);
}

// A message that consists of nothing but empty names, two bytes each on the wire.
Bytes FrameOfEmptyNames(size_t count)
{
    return PpcFrame({3, 1, kServerId, 1, 7, 0, std::vector<std::string>(count)});
}

// Likewise of unknown fields.
Bytes FrameOfUnknownFields(size_t count)
{
    Bytes encoding = gaktest::EncodeMessage(Report(1, 7, 3));
    for (size_t number = 0; number < count; ++number) {
        encoding.insert(encoding.end(), {15 << 3, 1});
    }
    Bytes payload;
    for (unsigned shift = 0; shift < 32; shift += 8) {
        payload.push_back(static_cast<uint8_t>(encoding.size() >> shift));
    }
    payload.insert(payload.end(), encoding.begin(), encoding.end());
    return FrameBytes(payload);
}

struct Amplified {
    double whileKept;     // bytes on the heap for each byte on the wire
    double afterTheNext;  // likewise, after a small message on the same session
};

class AmplificationTest : public TrustTest {
protected:
    void SetUp() override
    {
        if (kUnderSanitizer) {
            GTEST_SKIP() << "the sanitizer's heap is not the C library's";
        }
    }
    Amplified Send(const Bytes& frame)
    {
        Create();
        const Fd peer = ConnectAs(1, 7);
        const size_t before = HeapBytes();
        EXPECT_TRUE(WriteAll(peer, frame));
        EXPECT_TRUE(log_.WaitFor("##### [threadName:", 20s));
        const auto grown = [&] {
            return (static_cast<double>(HeapBytes()) - static_cast<double>(before)) / static_cast<double>(frame.size());
        };
        Amplified result{grown(), 0};
        Say(peer, Report(1, 7));
        result.afterTheNext = grown();
        printf("%.1f bytes for each byte on the wire, %.1f after the next message\n", result.whileKept,
               result.afterTheNext);
        return result;
    }
};

TEST_F(AmplificationTest, MessageTakesManyTimesItsFrameUntilTheSessionsNextOne)
{
    const Amplified names = Send(FrameOfEmptyNames(500000));
    EXPECT_GT(names.whileKept, 10);
    EXPECT_LT(names.whileKept, 40);
    EXPECT_LT(names.afterTheNext, 0.5);
}

TEST_F(AmplificationTest, MemoryOfUnknownFieldsIsKeptForTheWholeSession)
{
    const Amplified unknown = Send(FrameOfUnknownFields(500000));
    EXPECT_GT(unknown.whileKept, 4);
    EXPECT_GT(unknown.afterTheNext, 4);
    EXPECT_LT(unknown.afterTheNext, 20);
}

// ---- How much a peer sends ----

TEST_F(TrustTest, PeerThatNeverPausesDoesNotShutOutTheOthers)
{
    Handle(0);
    log_.SetMinimumLevel(3);
    Create();
    const Fd flood = Connect();
    std::atomic<bool> stop{false};
    std::atomic<uint64_t> sent{0};
    std::thread flooder([&] {
        const Bytes frame = PpcFrame(Report(1, 7, 2));
        while (!stop && WriteAll(flood, frame)) {
            ++sent;
        }
        EXPECT_TRUE(stop) << "the daemon has ended the session";
    });
    bool served = WaitUntil([&] { return sent > 1000; }, 10s);
    for (uint32_t pid = 1; served && pid <= 50; ++pid) {
        const Fd peer = Connect();
        served = WriteAll(peer, PpcFrame(Report(2, pid))) && Inbox::WaitFor(pid);
    }
    EXPECT_TRUE(served) << Inbox::Messages().size() << " of 50 were received";
    stop = true;
    shutdown(flood.get(), SHUT_RDWR);
    flooder.join();
}

TEST_F(TrustTest, HandlerThatSendsToAPeerThatDoesNotReadHoldsUpAllOthers)
{
    Handle(1);
    Handle(2);
    Create();
    const Fd lazy = ConnectAs(1, 5);
    const Fd worker = ConnectAs(1, 6);
    gaktest::CountingHook<gaktest::calls::Writev> writes;
    std::atomic<uint32_t> status{0};
    Inbox::OnMessage([&](const PPCMessage& msg) {
        if (msg.sub_proc_pid() == 5) {
            PPCMessage order = Order(1, 5);
            order.mutable_lib_names()->add_lib_name(std::string(8U << 20, 'x'));  // more than a socket takes
            status = server_.SendData(order);
        }
    });
    ASSERT_TRUE(WriteAll(lazy, PpcFrame(Report(1, 5, 1))));
    ASSERT_TRUE(WaitUntil([&] { return writes.Count() == 1; }, 10s));
    log_.Clear();
    ASSERT_TRUE(WriteAll(worker, PpcFrame(Report(1, 6, 2))));
    ASSERT_TRUE(log_.WaitFor("SetPpcSession, deviceId:1, subProcPid:6", 10s));
    EXPECT_EQ(Inbox::Messages().size(), 1u);
    EXPECT_EQ(status, 0u);
    server_.CloseSomeSession(server_.GetPpcSession(1, 5));
    ASSERT_TRUE(Inbox::WaitFor(2));
    EXPECT_EQ(status, 0x1093037u);
    EXPECT_EQ(server_.Destroy(), kOk);
}

}  // namespace
