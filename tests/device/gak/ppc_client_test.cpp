#include "ppc_client.h"

#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <atomic>
#include <csignal>
#include <memory>
#include <new>
#include <set>

#include "client_lines.h"
#include "last_exit_handler.h"

namespace gaktest {
namespace {

using qel::PpcClient;
using qel::PPCMessage;
using testing::ElementsAre;
using testing::IsEmpty;

std::string NoMatch(uint32_t device, uint32_t procType, uint32_t msgType)
{
    return Line("RecvMsgProc", "[PPCClient] RecvMsgProc() device[" + std::to_string(device) + "] procType[" +
                                   std::to_string(procType) + "] msgType[" + std::to_string(msgType) +
                                   "] no match continue");
}

// A message of 8 MiB: no socket takes it whole while nobody reads.
PPCMessage LongMessage()
{
    PPCMessage msg = Message(PPCMessage::NOTIFY_VEXOINFO, kServerId);
    msg.mutable_lib_names()->add_lib_name(std::string(8U << 20, 'x'));
    return msg;
}

class PpcClientTest : public ClientFixture {
protected:
    std::unique_ptr<BackgroundCall> Receive(uint32_t device, GakWaitType waitType)
    {
        return std::make_unique<BackgroundCall>(
            [this, device, waitType] { return client_.RecvData(device, waitType); });
    }
};

// ---- Instance and sessions ----

TEST_F(PpcClientTest, GetInstanceReturnsTheOneInstance)
{
    std::array<PpcClient*, 4> seen{};
    std::vector<std::thread> threads;
    for (PpcClient*& instance : seen) {
        threads.emplace_back([&instance] { instance = PpcClient::GetInstance(); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_THAT(seen, testing::Each(&client_));
    EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(PpcClientTest, DriverInitFailureGivesNoSession)
{
    CountingHook<DrvInit> inits;
    CountingHook<DrvClientCreate> creates;
    inits.FailCall(1, 7, 0);
    EXPECT_EQ(client_.GetPpcSession(0, PPCMessage::ZOLT), nullptr);
    EXPECT_EQ(creates.Count(), 0u);
    EXPECT_TRUE(NobodyConnects());
    EXPECT_THAT(Lines(), ElementsAre(Line(kInitFail, "GetPpcSession", "[GAKPPCCLI] GetPpcSession() drvPpcInit fail")));
}

TEST_F(PpcClientTest, ClientCreateFailureGivesNoSession)
{
    CountingHook<DrvClientCreate> creates;
    CountingHook<DrvConnect> connects;
    creates.FailCall(1, PPC_ERR_INVALID_VALUE, 0);
    EXPECT_EQ(client_.GetPpcSession(0, PPCMessage::ZOLT), nullptr);
    EXPECT_EQ(connects.Count(), 0u);
    EXPECT_THAT(Lines(),
                ElementsAre(Line(kCreateFail, "GetPpcSession", "[GAKPPCCLI] GetPpcSession() drvPdcClientCreate fail")));
}

TEST_F(PpcClientTest, ClientIsCreatedWith100And0)
{
    CountingHook<DrvClientCreate> creates;
    creates.OnCall([](uint64_t, void** handle, int first, int second) {
        EXPECT_NE(handle, nullptr);
        EXPECT_EQ(*handle, nullptr);
        EXPECT_EQ(first, 100);
        EXPECT_EQ(second, 0);
        return std::optional<int>();
    });
    EXPECT_NE(client_.GetPpcSession(0, PPCMessage::ZOLT), nullptr);
    EXPECT_EQ(creates.Count(), 1u);
}

TEST_F(PpcClientTest, InitAndCreateRunOnEveryCallWhileTheHandleStaysNull)
{
    CountingHook<DrvInit> inits;
    CountingHook<DrvClientCreate> creates;
    CountingHook<DrvClientDestroy> destroys;
    CountingHook<DrvConnect> connects;
    for (int i = 0; i < 3; ++i) {
        EXPECT_NE(client_.GetPpcSession(0, PPCMessage::ZOLT), nullptr);
    }
    EXPECT_EQ(inits.Count(), 3u);
    EXPECT_EQ(creates.Count(), 3u);
    EXPECT_EQ(connects.Count(), 1u);
    client_.Destroy();
    EXPECT_EQ(destroys.Count(), 0u);
}

TEST_F(PpcClientTest, UnrecordedDeviceDoesNotStopAMessageAndTheNextRecordsIt)
{
    const Fd peer = Open(0, PPCMessage::COMPUTE);
    log_.Clear();
    {
        CountingHook<calls::OperatorNew> news;
        news.OnCall([](uint64_t number, size_t) -> std::optional<void*> {
            if (number == 1) {
                throw std::bad_alloc();
            }
            return std::nullopt;
        });
        EXPECT_EQ(client_.SendHeartbeat(0, 1), kOk.number);
    }
    EXPECT_EQ(ReadPpcFrame(peer, kWait), FromWorker(2, 0, 1));
    EXPECT_THAT(Lines(), testing::Contains(kNoMemoryForDevice));
    std::vector<std::string> noNames;
    EXPECT_EQ(client_.CreateOrFindCustPid(noNames, 1), kCreateFail.number) << "no device to name";

    EXPECT_EQ(client_.SendHeartbeat(0, 1), kOk.number);
    EXPECT_EQ(ReadPpcFrame(peer, kWait), FromWorker(2, 0, 1));
    BackgroundCall request([&] { return client_.CreateOrFindCustPid(noNames, 1); });
    const auto sent = ReadPpcFrame(peer, kWait);
    ASSERT_TRUE(sent.has_value());
    EXPECT_EQ(sent->type, 3u);
    void* session = client_.GetPpcSession(0, PPCMessage::COMPUTE);
    client_.RecvMsgProc(0, session, PPCMessage::COMPUTE, Message(PPCMessage::START_RSP, 0, PPCMessage::CUSTOM_COMPUTE));
    EXPECT_EQ(request.Result(), kOk.number);
}

TEST_F(PpcClientTest, SendDataReturnsTheStatusOfTheCodec)
{
    const Fd peer = Open(0, PPCMessage::ZOLT);
    void* session = client_.GetPpcSession(0, PPCMessage::ZOLT);
    EXPECT_EQ(client_.SendData(session, PPCMessage()), kOk.number);
    EXPECT_EQ(Hex(ReadExactly(peer, 8, kWait)), "00 00 00 04 00 00 00 00");
    void* none = nullptr;
    EXPECT_EQ(client_.SendData(none, PPCMessage()), kNoSession.number);
    CountingHook<DrvSend> sends;
    sends.FailCall(1, PPC_ERR_SEND, 0);
    EXPECT_EQ(client_.SendData(session, PPCMessage()), kSendRecvFail.number);
}

// ---- One received message ----

TEST_F(PpcClientTest, MessagesForSomebodyElseAreNoMatch)
{
    struct Row {
        uint32_t type;
        uint32_t destId;
    };
    constexpr uint32_t kDevice = 2;
    void* session = nullptr;
    for (const Row& row : {Row{0, kDevice},
                           {1, kDevice},
                           {2, kDevice},
                           {3, kDevice},
                           {4, kDevice},
                           {6, kDevice},
                           {99, kDevice},
                           {5, 0},
                           {5, 1},
                           {5, 3},
                           {5, kServerId}}) {
        log_.Clear();
        PPCMessage msg = Message(static_cast<PPCMessage::MsgType>(row.type), row.destId, PPCMessage::COMPUTE);
        msg.set_src_id(kDevice);
        msg.set_sub_proc_pid(77);
        EXPECT_EQ(client_.RecvMsgProc(kDevice, session, PPCMessage::COMPUTE, msg), kNotExpected.number);
        EXPECT_THAT(
            Lines(),
            ElementsAre(Line("RecvMsgProc", "PpcClient:: msg.type[" + std::to_string(row.type) + "], msg.proc_type[1]"),
                        Line("RecvMsgProc",
                             "PpcClient::RecvMsgProc, size=" + std::to_string(msg.ByteSizeLong()) + ", subpid=77"),
                        NoMatch(kDevice, 1, row.type)));
    }
    EXPECT_TRUE(NobodyConnects());
}

TEST_F(PpcClientTest, ShutdownIsAnswered)
{
    const Fd peer = Open(3, PPCMessage::CUSTOM_COMPUTE);
    void* session = client_.GetPpcSession(3, PPCMessage::CUSTOM_COMPUTE);
    log_.Clear();
    PPCMessage msg = Message(PPCMessage::SHUTDOWN, 3, PPCMessage::CUSTOM_COMPUTE);
    msg.set_sub_proc_pid(5);
    EXPECT_EQ(client_.RecvMsgProc(3, session, PPCMessage::CUSTOM_COMPUTE, msg), kOk.number);
    EXPECT_EQ(ReadPpcFrame(peer, kWait), FromWorker(1, 3, 2));
    const std::string pid = std::to_string(getpid());
    EXPECT_THAT(
        Lines(),
        ElementsAre(
            Line("RecvMsgProc", "PpcClient:: msg.type[5], msg.proc_type[2]"),
            Line("RecvMsgProc", "PpcClient::RecvMsgProc, size=8, subpid=5"),
            Line("RecvMsgProc", "PpcClient::RecvMsgProc, subpid1=" + pid + ", subpid2=" + pid),
            EventLine("RecvMsgProc", "[PPCCLIEVENT] #### PPCClient->GAK Close Rsp send OK device[3] procType:2 ####")));
}

TEST_F(PpcClientTest, ShutdownWhoseAnswerCannotBeSentGivesTheStatusOfTheSend)
{
    log_.SetMinimumLevel(3);  // the lines before are those of any shutdown
    void* none = nullptr;
    EXPECT_EQ(client_.RecvMsgProc(1, none, PPCMessage::ZOLT, Message(PPCMessage::SHUTDOWN, 1)), kNoSession.number);
    EXPECT_THAT(Lines(), ElementsAre(Line(kNoSession, "RecvMsgProc", "[PPCClient] SendCloseRsp error")));

    Open(1, PPCMessage::ZOLT).Reset();
    void* session = client_.GetPpcSession(1, PPCMessage::ZOLT);
    log_.Clear();
    EXPECT_EQ(client_.RecvMsgProc(1, session, PPCMessage::ZOLT, Message(PPCMessage::SHUTDOWN, 1)),
              kSendRecvFail.number);
    EXPECT_THAT(Lines(), ElementsAre(Line(kSendRecvFail, "RecvMsgProc", "[PPCClient] SendCloseRsp error")));
}

// ---- The receive loop ----

TEST_F(PpcClientTest, ShutdownEndsTheLoop)
{
    const Fd peer = Open(1, PPCMessage::COMPUTE);
    log_.Clear();
    ASSERT_TRUE(WriteAll(peer, PpcFrame(FromDaemon(5, 1, 1))));
    EXPECT_EQ(client_.RecvData(1, 1), kOk.number);
    EXPECT_EQ(ReadPpcFrame(peer, kWait), FromWorker(1, 1, 1));
    const std::vector<std::string> lines = Lines();
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_EQ(lines[4],
              Line("RecvData", "[PPCClient]Process Exit DevId:1 procType:1(0:ZOLT,1:COMPUTE,2:CUSTOM_COMPUTE)"));
}

TEST_F(PpcClientTest, ShutdownOfAnotherDeviceIsNoMatchAndTheLoopGoesOn)
{
    const Fd peer = Open(1, PPCMessage::COMPUTE);
    ASSERT_TRUE(WriteAll(peer, PpcFrame(FromDaemon(5, 2, 1))));
    ASSERT_TRUE(WriteAll(peer, PpcFrame(FromDaemon(5, 1, 1))));
    EXPECT_EQ(client_.RecvData(1, 1), kOk.number);
    EXPECT_THAT(Lines(), testing::Contains(NoMatch(1, 1, 5)).Times(1));
    EXPECT_EQ(ReadPpcFrame(peer, kWait), FromWorker(1, 1, 1));
    EXPECT_FALSE(WaitReadable(peer, std::chrono::seconds(0)));  // one answer only
}

TEST_F(PpcClientTest, ShutdownOfAnotherProcessTypeIsAnsweredAndEndsTheLoop)
{
    const Fd peer = Open(1, PPCMessage::COMPUTE);
    ASSERT_TRUE(WriteAll(peer, PpcFrame(FromDaemon(5, 1, 2))));
    EXPECT_EQ(client_.RecvData(1, 1), kOk.number);
    EXPECT_EQ(ReadPpcFrame(peer, kWait), FromWorker(1, 1, 1));  // its own process type
}

TEST_F(PpcClientTest, EveryOtherMessageTypeLetsTheLoopGoOn)
{
    const Fd peer = Open(0, PPCMessage::ZOLT);
    std::vector<std::string> expected;
    for (const uint32_t type : {0U, 1U, 2U, 3U, 4U, 6U, 12345U}) {
        ASSERT_TRUE(WriteAll(peer, PpcFrame(FromDaemon(type, 0))));
        expected.push_back(NoMatch(0, 0, type));
    }
    ASSERT_TRUE(WriteAll(peer, PpcFrame(FromDaemon(5, 0))));
    EXPECT_EQ(client_.RecvData(0, 0), kOk.number);
    EXPECT_THAT(Lines(), testing::IsSupersetOf(expected));
}

TEST_F(PpcClientTest, OneMessagesFieldsDoNotReachIntoTheNext)
{
    // The second frame is the empty message: what it does not carry must not be left over from the first.
    const Fd peer = Open(1, PPCMessage::COMPUTE);
    ASSERT_TRUE(WriteAll(peer, PpcFrame({5, 0, 2, 1, 88, 0, {}})));
    ASSERT_TRUE(WriteAll(peer, PpcFrame({})));
    ASSERT_TRUE(WriteAll(peer, PpcFrame(FromDaemon(5, 1, 1))));
    EXPECT_EQ(client_.RecvData(1, 1), kOk.number);
    EXPECT_THAT(Lines(), testing::IsSupersetOf({Line("RecvMsgProc", "PpcClient::RecvMsgProc, size=0, subpid=0"),
                                                Line("RecvMsgProc", "PpcClient:: msg.type[0], msg.proc_type[0]")}));
}

TEST_F(PpcClientTest, PeerThatClosesEndsTheLoop)
{
    Open(3, PPCMessage::ZOLT).Reset();
    log_.Clear();
    EXPECT_EQ(client_.RecvData(3, 0), kSocketClosed.number);
    EXPECT_THAT(Lines(), ElementsAre(Line(kSocketClosed, "RecvData",
                                          "[GAKPPCCLI] recvdata device 3 client receive message failed")));
}

TEST_F(PpcClientTest, PeerThatClosesInsideAFrameEndsTheLoop)
{
    Fd peer = Open(3, PPCMessage::ZOLT);
    ASSERT_TRUE(WriteAll(peer, {0, 0, 0, 10, 6, 0, 0}));
    peer.Reset();
    log_.Clear();
    EXPECT_EQ(client_.RecvData(3, 0), kSendRecvFail.number);
    EXPECT_THAT(Lines(), ElementsAre(Line(kSendRecvFail, "RecvData",
                                          "[GAKPPCCLI] recvdata device 3 client receive message failed")));
}

TEST_F(PpcClientTest, NullSessionIsLeftToTheCodec)
{
    const Fd peer = Open(0, PPCMessage::ZOLT);  // the client runs
    CountingHook<DrvConnect> connects;
    connects.FailCall(1, PPC_ERR_SOCKET_CONNECT, 0);
    log_.Clear();
    EXPECT_EQ(client_.RecvData(1, 1), kMsgAllocFail.number);
    EXPECT_THAT(Lines(), ElementsAre(kConnecting, kConnectFailed,
                                     Line(kMsgAllocFail, "RecvData",
                                          "[GAKPPCCLI] recvdata device 1 client receive message failed")));
}

TEST_F(PpcClientTest, LoopDoesNotStartWhileTheClientDoesNotRun)
{
    StopListening();
    EXPECT_EQ(client_.RecvData(0xFFFFFFFF, 0), kRecvFail.number);
    EXPECT_THAT(Lines(),
                ElementsAre(kConnecting, kConnectFailed,
                            Line(kRecvFail, "RecvData",
                                 "[GAKPPCCLI] recvdata device -1 clientRecvFlag_ is false receive msg failed")));
}

TEST_F(PpcClientTest, AfterDestroyRecvDataReturnsAtOnce)
{
    Open(2, PPCMessage::COMPUTE).Reset();
    client_.Destroy();
    log_.Clear();
    // The daemon still listens: no session is opened behind the tear-down.
    EXPECT_EQ(client_.RecvData(2, 1), kRecvFail.number);
    EXPECT_THAT(Lines(),
                ElementsAre(Line(kRecvFail, "RecvData",
                                 "[GAKPPCCLI] recvdata device 2 clientRecvFlag_ is false receive msg failed")));
}

TEST_F(PpcClientTest, DestroyDuringAReceiveReturnsTheStatusOfTheReceive)
{
    const Fd peer = Open(2, PPCMessage::ZOLT);
    CountingHook<calls::Recv> recvs;
    const auto receiving = Receive(2, 0);
    ASSERT_TRUE(WaitUntil([&] { return recvs.Count() == 1; }, kWait));
    client_.Destroy();
    EXPECT_EQ(receiving->Result(), kSocketClosed.number);
    EXPECT_THAT(Lines(),
                testing::Contains(Line("RecvData", "[GAKPPCCLI] recvdata device 2 client recvflag has been set true")));
    EXPECT_TRUE(ExpectEof(peer, kWait));
}

TEST_F(PpcClientTest, MessageReceivedWhileTheClientIsDestroyedIsNotHandled)
{
    const Fd peer = Open(2, PPCMessage::ZOLT);
    ASSERT_TRUE(WriteAll(peer, PpcFrame(FromDaemon(5, 2))));
    CountingHook<calls::Recv> recvs;
    recvs.OnCall([this](uint64_t number, int, void*, size_t, int) {
        if (number == 2) {  // the frame has begun to arrive
            client_.Destroy();
        }
        return std::optional<ssize_t>();
    });
    EXPECT_EQ(client_.RecvData(2, 0), kOk.number);
    EXPECT_EQ(Lines().back(), Line("RecvData", "[GAKPPCCLI] recvdata device 2 client recvflag has been set true"));
    EXPECT_TRUE(ExpectEof(peer, kWait));  // no answer
}

// ---- Destroy ----

TEST_F(PpcClientTest, DestroyBeforeAnySessionDoesNothing)
{
    CountingHook<DrvUninit> uninits;
    client_.Destroy();
    EXPECT_EQ(uninits.Count(), 0u);
    EXPECT_THAT(Lines(), ElementsAre(kDestroyEnter, kNotRunning));
}

TEST_F(PpcClientTest, DestroyEndsTheSessionsAndASecondOneDoesNothing)
{
    CountingHook<DrvUninit> uninits;
    const Fd peer = Open(0, PPCMessage::ZOLT);
    const Fd other = Open(1, PPCMessage::ZOLT);
    log_.Clear();
    client_.Destroy();
    EXPECT_TRUE(ExpectEof(peer, kWait));
    EXPECT_TRUE(ExpectEof(other, kWait));
    EXPECT_EQ(uninits.Count(), 1u);
    EXPECT_THAT(Lines(), ElementsAre(kDestroyEnter, SessionDestroyed(0), SessionDestroyed(0), kDestroyExit));
    log_.Clear();
    client_.Destroy();
    EXPECT_EQ(uninits.Count(), 1u);
    EXPECT_THAT(Lines(), ElementsAre(kDestroyEnter, kNotRunning));
}

// The driver's own client handle stays null; another driver may give one.
class PpcClientHandleTest : public PpcClientTest {
protected:
    PpcClientHandleTest()
    {
        creates_.OnCall([this](uint64_t, void** handle, int, int) {
            *handle = &handle_;
            return std::optional<int>(PPC_OK);
        });
        destroys_.OnCall([this](uint64_t, void* handle) {
            EXPECT_EQ(handle, &handle_);
            return std::optional<int>(destroyResult_);
        });
    }

    int handle_ = 0;
    int destroyResult_ = PPC_OK;
    CountingHook<DrvClientCreate> creates_;
    CountingHook<DrvClientDestroy> destroys_;
};

TEST_F(PpcClientHandleTest, ClientIsCreatedOnceAndDestroyedByDestroy)
{
    CountingHook<DrvInit> inits;
    EXPECT_NE(client_.GetPpcSession(0, PPCMessage::ZOLT), nullptr);
    EXPECT_NE(client_.GetPpcSession(1, PPCMessage::ZOLT), nullptr);
    EXPECT_EQ(inits.Count(), 1u);
    EXPECT_EQ(creates_.Count(), 1u);
    client_.Destroy();
    EXPECT_EQ(destroys_.Count(), 1u);
}

TEST_F(PpcClientHandleTest, DestroyEndsTheSessionsThenTheClientThenTheDriver)
{
    std::vector<std::string> ended;
    const auto note = [&ended](const char* what) {
        return [&ended, what](auto...) {
            ended.emplace_back(what);
            return std::optional<int>();
        };
    };
    CountingHook<DrvUninit> uninits;
    CountingHook<DrvSessionDestroy> sessions;
    ASSERT_NE(client_.GetPpcSession(0, PPCMessage::ZOLT), nullptr);
    uninits.OnCall(note("driver"));
    destroys_.OnCall(note("client"));
    sessions.OnCall(note("session"));
    client_.Destroy();
    EXPECT_THAT(ended, ElementsAre("session", "client", "driver"));
}

TEST_F(PpcClientHandleTest, ClientThatCannotBeDestroyedIsForgotten)
{
    destroyResult_ = PPC_ERR_INVALID_VALUE;
    client_.GetPpcSession(0, PPCMessage::ZOLT);
    log_.Clear();
    client_.Destroy();
    EXPECT_THAT(Lines(), ElementsAre(kDestroyEnter, SessionDestroyed(0),
                                     Line(kDriverError, "Destroy", "[GAKPPCCLI] Destroy() drvPpcClientDestroy fail"),
                                     kDestroyExit));
    client_.GetPpcSession(0, PPCMessage::ZOLT);
    EXPECT_EQ(creates_.Count(), 2u);
}

// Another thread gets its client while the driver is still busy with this one's, which is `slow`.
class PpcClientTwoHandlesTest : public PpcClientTest {
protected:
    void GetSessionsOfTwoThreads(void* slow)
    {
        creates_.OnCall([this, slow](uint64_t number, void** handle, int, int) {
            if (number == 1) {
                std::thread([this] { client_.GetPpcSession(1, PPCMessage::ZOLT); }).join();
            }
            *handle = number == 1 ? slow : &handle_;
            return std::optional<int>(PPC_OK);
        });
        destroys_.OnCall([this](uint64_t, void* handle) {
            destroyed_.push_back(handle);
            return std::optional<int>(PPC_OK);
        });
        EXPECT_NE(client_.GetPpcSession(0, PPCMessage::ZOLT), nullptr);
        EXPECT_EQ(creates_.Count(), 2u);
    }

    int handle_ = 0;
    std::vector<void*> destroyed_;
    CountingHook<DrvClientCreate> creates_;
    CountingHook<DrvClientDestroy> destroys_;
};

TEST_F(PpcClientTwoHandlesTest, OneThatCameTooLateIsGivenBack)
{
    int slow = 0;
    GetSessionsOfTwoThreads(&slow);
    EXPECT_THAT(destroyed_, ElementsAre(&slow));
    client_.Destroy();
    EXPECT_THAT(destroyed_, ElementsAre(&slow, &handle_));
}

TEST_F(PpcClientTwoHandlesTest, NullThatCameTooLateIsNot)
{
    GetSessionsOfTwoThreads(nullptr);
    EXPECT_THAT(destroyed_, IsEmpty());
    client_.Destroy();
    EXPECT_THAT(destroyed_, ElementsAre(&handle_));
}

TEST_F(PpcClientTest, AfterDestroyTheClientStartsOver)
{
    Open(0, PPCMessage::ZOLT).Reset();
    client_.Destroy();
    CountingHook<DrvInit> inits;
    const Fd peer = Open(0, PPCMessage::ZOLT);
    EXPECT_EQ(inits.Count(), 1u);
    ASSERT_TRUE(WriteAll(peer, PpcFrame(FromDaemon(5, 0))));
    EXPECT_EQ(client_.RecvData(0, 0), kOk.number);
    log_.Clear();
    client_.Destroy();
    EXPECT_THAT(Lines(), ElementsAre(kDestroyEnter, SessionDestroyed(0), kDestroyExit));
}

TEST_F(PpcClientTest, DestroyEndsASendThatTheDaemonDoesNotRead)
{
    const Fd peer = Open(0, PPCMessage::ZOLT);
    void* session = client_.GetPpcSession(0, PPCMessage::ZOLT);
    CountingHook<DrvSend> sends;
    const auto send = [&] { return client_.SendData(session, LongMessage()); };
    BackgroundCall first(send);
    ASSERT_TRUE(WaitReadable(peer, kWait));
    BackgroundCall waiting(send);  // for the first one to end
    ASSERT_TRUE(WaitUntil([&] { return sends.Count() == 2; }, kWait));
    client_.Destroy();
    EXPECT_EQ(first.Result(), kSendRecvFail.number);
    EXPECT_EQ(waiting.Result(), kSendRecvFail.number);
}

TEST_F(PpcClientTest, DestroyWhileOthersSendAndReceive)
{
    for (int round = 0; round < 20; ++round) {
        Fd peer = Open(0, PPCMessage::COMPUTE);
        std::atomic<bool> stop{false};
        void* session = client_.GetPpcSession(0, PPCMessage::COMPUTE);
        const auto sendUntilEnded = [&, session]() mutable {
            uint32_t status = kOk.number;
            while (status == kOk.number && !stop) {
                status = client_.SendData(session, Message(PPCMessage::HEARTBEAT, kServerId));
            }
            return status;
        };
        CountingHook<calls::Writev> writes;
        CountingHook<calls::Recv> recvs;
        BackgroundCall sender(sendUntilEnded);
        BackgroundCall otherSender(sendUntilEnded);
        const auto receiving = Receive(0, 1);
        EXPECT_TRUE(WaitUntil([&] { return writes.Count() > 1 && recvs.Count() == 1; }, kWait));
        client_.Destroy();
        EXPECT_EQ(sender.Result(), kSendRecvFail.number);
        EXPECT_EQ(otherSender.Result(), kSendRecvFail.number);
        EXPECT_EQ(receiving->Result(), kSocketClosed.number);
    }
}

TEST_F(PpcClientTest, EndedSessionReachesNoOtherWorkersSession)
{
    Open(0, PPCMessage::ZOLT).Reset();
    void* ended = client_.GetPpcSession(0, PPCMessage::ZOLT);
    client_.Destroy();
    std::vector<Fd> peers;  // one of them gets the ended session's descriptor number
    for (uint32_t device = 0; device < 4; ++device) {
        peers.push_back(Open(device, PPCMessage::ZOLT));
    }
    EXPECT_EQ(client_.SendData(ended, Message(PPCMessage::HEARTBEAT, kServerId)), kSendRecvFail.number);
    for (const Fd& peer : peers) {
        EXPECT_FALSE(WaitReadable(peer, std::chrono::seconds(0)));
    }
}

TEST_F(PpcClientTest, SendToADeadDaemonRaisesNoSignal)
{
    ASSERT_NE(signal(SIGPIPE, SIG_DFL), SIG_ERR);
    sigset_t before;
    sigset_t after;
    sigset_t pending;
    ASSERT_EQ(pthread_sigmask(SIG_BLOCK, nullptr, &before), 0);
    ASSERT_FALSE(sigismember(&before, SIGPIPE));

    ChildProcess daemon([this] {
        const Fd connection = Accept();
        pause();
        return 0;
    });
    listener_.Reset();
    EXPECT_EQ(client_.SendHeartbeat(0, 0), kOk.number);
    daemon.Kill(SIGKILL);
    ASSERT_TRUE(daemon.WaitExit(kWait).KilledBy(SIGKILL));
    EXPECT_EQ(client_.SendHeartbeat(0, 0), kCreateFail.number);
    EXPECT_EQ(client_.SendHeartbeat(0, 0), kCreateFail.number);

    ASSERT_EQ(pthread_sigmask(SIG_BLOCK, nullptr, &after), 0);
    for (int number = 1; number < NSIG; ++number) {
        EXPECT_EQ(sigismember(&before, number), sigismember(&after, number)) << number;
    }
    ASSERT_EQ(sigpending(&pending), 0);
    EXPECT_FALSE(sigismember(&pending, SIGPIPE));
    EXPECT_EQ(signal(SIGPIPE, SIG_DFL), SIG_DFL);
}

TEST_F(PpcClientTest, SessionIsKeptAfterItsDaemonHasGone)
{
    Open(0, PPCMessage::ZOLT).Reset();
    CountingHook<DrvConnect> connects;
    EXPECT_EQ(client_.SendHeartbeat(0, 0), kCreateFail.number);
    EXPECT_EQ(client_.SendHeartbeat(0, 0), kCreateFail.number);
    EXPECT_EQ(connects.Count(), 0u);
    // Only Destroy gives it up.
    client_.Destroy();
    EXPECT_EQ(client_.SendHeartbeat(0, 0), kOk.number);
    EXPECT_EQ(ReadPpcFrame(Accept(), kWait), FromWorker(2, 0, 0));
}

// ---- Processes that end ----

TEST_F(PpcClientTest, ForkedChildThatExitsDisturbsNoSessionOfItsParent)
{
    const Fd peer = Open(0, PPCMessage::COMPUTE);
    for (const bool destroys : {false, true}) {
        ChildProcess child([&] {
            log_.Clear();
            if (destroys) {
                client_.Destroy();
            }
            static const LogCapture* log = &log_;
            LastExitHandler::decide = [] { return log->Lines().empty() ? 0 : 1; };  // a tear-down would have said so
            exit(1);
            return 1;
        });
        EXPECT_TRUE(child.WaitExit(kWait).ExitedWith(0));
    }
    EXPECT_EQ(client_.SendHeartbeat(0, 1), kOk.number);
    EXPECT_EQ(ReadPpcFrame(peer, kWait), FromWorker(2, 0, 1));
    ASSERT_TRUE(WriteAll(peer, PpcFrame(FromDaemon(5, 0))));
    EXPECT_EQ(client_.RecvData(0, 1), kOk.number);
    EXPECT_EQ(ReadPpcFrame(peer, kWait), FromWorker(1, 0, 1));
}

TEST_F(PpcClientTest, ForkedChildReportsItsOwnProcessId)
{
    const Fd peer = Open(0, PPCMessage::COMPUTE);  // from here on the parent's id is remembered
    ChildProcess child([&] { return client_.SendHeartbeat(1, 1) == kOk.number ? 0 : 1; });
    const Fd childsPeer = Accept();
    const auto heartbeat = ReadPpcFrame(childsPeer, kWait);
    ASSERT_TRUE(heartbeat.has_value());
    EXPECT_EQ(heartbeat->sub_proc_pid, static_cast<uint32_t>(child.pid()));
    EXPECT_TRUE(child.WaitExit(kWait).ExitedWith(0));
}

// Runs after the exit handler of the client, which is registered later.
LogCapture* exitLog = nullptr;

bool DestructorHasDestroyed(const LogCapture& log)
{
    const std::vector<std::string> expected{Line("~PpcClient", "PpcClient::~PpcClient() destructor function called"),
                                            kDestroyEnter, SessionDestroyed(0), kDestroyExit};
    return ClientLines(log) == expected;
}

void CheckExitLines()
{
    if (!DestructorHasDestroyed(*exitLog)) {
        _exit(1);
    }
}

int ExitWithASession()
{
    exitLog = new LogCapture;
    if (atexit(&CheckExitLines) != 0 || ppcInit() != 0 ||
        PpcClient::GetInstance()->GetPpcSession(0, PPCMessage::ZOLT) == nullptr) {
        return 2;
    }
    exitLog->Clear();
    exit(0);
}

TEST(PpcClientExitTest, ExitLogsTheDestructorAndDestroys)
{
    const Fd listener = RawListen(kServerId);
    ChildProcess worker(&ExitWithASession);
    EXPECT_TRUE(ExpectEof(RawAccept(listener, kWait), kWait));
    EXPECT_TRUE(worker.WaitExit(kWait).ExitedWith(0));
}

// By its name, as nobody needs to: afterwards there is no client object in the process any more.
TEST(PpcClientExitTest, DestructorDestroysTheSessions)
{
    const Fd listener = RawListen(kServerId);
    ChildProcess worker([] {
        LogCapture log;
        PpcClient* client = PpcClient::GetInstance();
        if (ppcInit() != 0 || client->GetPpcSession(0, PPCMessage::ZOLT) == nullptr) {
            return 2;
        }
        log.Clear();
        client->~PpcClient();
        return DestructorHasDestroyed(log) ? 0 : 1;
    });
    EXPECT_TRUE(ExpectEof(RawAccept(listener, kWait), kWait));
    EXPECT_TRUE(worker.WaitExit(kWait).ExitedWith(0));
}

// Takes connections and, if it reads at all, drops what comes. Runs until it is killed.
int RunDaemonThatDropsAll(const Fd& listener, bool reads)
{
    std::vector<pollfd> wanted{{listener.get(), POLLIN, 0}};
    std::array<char, 4096> dropped{};
    while (poll(wanted.data(), wanted.size(), -1) >= 0) {
        for (size_t i = 1; i < wanted.size(); ++i) {
            if (wanted[i].revents != 0 && recv(wanted[i].fd, dropped.data(), dropped.size(), 0) <= 0) {
                close(wanted[i].fd);
                wanted[i].fd = -1;
            }
        }
        if (wanted[0].revents != 0) {
            const short events = reads ? POLLIN : 0;
            wanted.push_back({accept(listener.get(), nullptr, nullptr), events, 0});
        }
    }
    return 1;
}

// Exits from its main thread while others are inside the three functions that block or are called often.
int ExitWithThreadsInside()
{
    CountingHook<calls::Recv> recvs;
    CountingHook<DrvSend> sends;
    if (ppcInit() != 0 || GakHeartbeatSend(0, 1) != 0) {
        return 1;
    }
    std::thread([] { GakWaitForShutdown(0, 1); }).detach();
    if (!WaitUntil([&] { return recvs.Count() > 0; }, kWait)) {
        return 2;
    }
    std::thread([] { CreateOrFindCustPid(0, nullptr, 1); }).detach();
    std::thread([] {
        while (GakHeartbeatSend(0, 1) == 0) {
        }
    }).detach();
    if (!WaitUntil([&] { return sends.Count() > 50; }, kWait)) {
        return 3;
    }
    exit(0);
}

class PpcClientExitInsideTest : public testing::TestWithParam<bool> {};

TEST_P(PpcClientExitInsideTest, ExitWithThreadsInsideIsClean)
{
    const Fd listener = RawListen(kServerId, 100);
    ASSERT_TRUE(listener.valid());
    ChildProcess daemon([&] { return RunDaemonThatDropsAll(listener, GetParam()); });
    for (int round = 0; round < 5; ++round) {
        std::vector<std::unique_ptr<ChildProcess>> workers;
        for (int i = 0; i < 6; ++i) {
            workers.push_back(std::make_unique<ChildProcess>(&ExitWithThreadsInside));
        }
        for (const auto& worker : workers) {
            const ExitStatus status = worker->WaitExit(kWait);
            EXPECT_TRUE(status.ExitedWith(0)) << status;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Daemons, PpcClientExitInsideTest, testing::Bool(), [](const auto& daemon) {
    return daemon.param ? "OfADaemonThatReads" : "OfADaemonThatDoesNotRead";
});

}  // namespace
}  // namespace gaktest
