#include "gak.h"

#include <array>
#include <memory>
#include <new>
#include <stdexcept>

#include "client_fixture.h"
#include "log.h"
#include "tracer.h"

namespace gaktest {
namespace {

using qel::PPCMessage;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

enum : uint32_t { kZolt = 0, kCompute = 1, kCustomCompute = 2 };
enum : uint32_t { kStartRsp = 0, kShutdownRsp = 1, kHeartbeat = 2, kNotifyVexoInfo = 3, kAbnormal = 4, kShutdown = 5 };

const char kTypes[] = "(0:ZOLT,1:COMPUTE,2:CUSTOM_COMPUTE)";

std::string IsRunning(const std::string& function, uint32_t device, uint32_t waitType)
{
    return Line(function, "[GAKPPCCLI] " + function + "() deviceId: " + std::to_string(device) +
                              " waitType:" + std::to_string(waitType) + kTypes + " is running");
}

const std::string kBadDevice =
    Line(kInvalidParam, "SendPpcMsg", "[GAKPPCCLI] SendPpcMsg() srcDevId >= MAX_DEVNUM_PER_OS invalid param");
const std::string kBadWaitType =
    Line(kInvalidParam, "SendPpcMsg", "[GAKPPCCLI] SendPpcMsg() waitType > COMPUTE invalid param");

// An exported function with its member and what it sends.
struct Function {
    const char* name;
    uint32_t (*call)(uint32_t device, GakWaitType waitType);
    const char* member;
    const char* word;  // in the member's lines
    uint32_t messageType;
    const char* caught;
};
std::ostream& operator<<(std::ostream& out, const Function& function)
{
    return out << function.name;
}
const Function kHeartbeatSend{"GakHeartbeatSend", &GakHeartbeatSend, "SendHeartbeat",
                              "heartbeat",        kHeartbeat,        "catch exception while gak heartbeat msg send"};
const Function kDestory{"GakDestory", &GakDestory, "SendAbnormalMsg",
                        "abnormal",   kAbnormal,   "catch exception while gak destory"};

class GakTest : public ClientFixture {
protected:
    // A call of GakWaitForShutdown and the daemon's end of its session, whose end ends the call.
    struct Worker {
        std::unique_ptr<BackgroundCall> waiting;
        Fd peer;
    };

    Worker Start(uint32_t device, GakWaitType waitType)
    {
        Worker worker;
        worker.waiting = std::make_unique<BackgroundCall>([=] { return GakWaitForShutdown(device, waitType); });
        worker.peer = Accept();
        EXPECT_EQ(ReadPpcFrame(worker.peer, kWait), FromWorker(kStartRsp, device, waitType));
        return worker;
    }

    void Shutdown(Worker& worker, uint32_t device, uint32_t procType)
    {
        EXPECT_TRUE(WriteAll(worker.peer, PpcFrame(FromDaemon(kShutdown, device))));
        EXPECT_EQ(ReadPpcFrame(worker.peer, kWait), FromWorker(kShutdownRsp, device, procType));
        EXPECT_EQ(worker.waiting->Result(), 0u);
    }

    // As the receive loop does when the daemon reports the custom process.
    void ReportCustomStart()
    {
        PPCMessage started;
        started.set_type(PPCMessage::START_RSP);
        started.set_proc_type(PPCMessage::CUSTOM_COMPUTE);
        void* session = nullptr;
        EXPECT_EQ(client_.RecvMsgProc(0, session, PPCMessage::COMPUTE, started), kNotExpected.number);
    }

    // Sends a heartbeat over a new session and returns the daemon's end.
    Fd SendFirstHeartbeat(uint32_t device, GakWaitType waitType)
    {
        EXPECT_EQ(GakHeartbeatSend(device, waitType), 0u);
        Fd peer = Accept();
        EXPECT_TRUE(ReadPpcFrame(peer, kWait).has_value());
        return peer;
    }
};

class GakReportTest : public GakTest, public testing::WithParamInterface<Function> {};
INSTANTIATE_TEST_SUITE_P(Functions, GakReportTest, testing::Values(kHeartbeatSend, kDestory),
                         [](const auto& function) { return function.param.name; });

// ---- Wait types ----

TEST_F(GakTest, ProcessTypeOfTheLoopIsTheWaitTypesOrMax)
{
    EXPECT_EQ(client_.GetPPCProcessType(0), PPCMessage::ZOLT);
    EXPECT_EQ(client_.GetPPCProcessType(1), PPCMessage::COMPUTE);
    EXPECT_EQ(client_.GetPPCProcessType(2), PPCMessage::CUSTOM_COMPUTE);
    for (const GakWaitType other : {3U, 4U, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU}) {
        EXPECT_EQ(client_.GetPPCProcessType(other), PPCMessage::MAXPROCTYPE) << other;
    }
}

TEST_F(GakTest, AcceptedWaitTypesGoOutAsTheirProcessType)
{
    // The sessions in the order of the connects: COMPUTE serves five wait types.
    const std::array<std::pair<GakWaitType, uint32_t>, 7> rows{{{0, kZolt},
                                                                {1, kCompute},
                                                                {2, kCustomCompute},
                                                                {3, kCompute},
                                                                {0x80000000, kCompute},
                                                                {0xFFFFFFFE, kCompute},
                                                                {0xFFFFFFFF, kCompute}}};
    std::array<Fd, 3> peers;
    for (const auto& [waitType, procType] : rows) {
        log_.Clear();
        EXPECT_EQ(client_.SendPpcMsg(1, waitType, PPCMessage::NOTIFY_VEXOINFO), kOk.number);
        EXPECT_EQ(Lines().front(), IsRunning("SendPpcMsg", 1, waitType));
        if (!peers[procType].valid()) {
            peers[procType] = Accept();
        }
        EXPECT_EQ(ReadPpcFrame(peers[procType], kWait), FromWorker(kNotifyVexoInfo, 1, procType)) << waitType;
    }
    EXPECT_TRUE(NobodyConnects());
}

TEST_F(GakTest, WaitTypesAbove3AreRefused)
{
    for (const GakWaitType waitType : {4U, 5U, 0x7FFFFFFFU}) {
        log_.Clear();
        EXPECT_EQ(client_.SendPpcMsg(1, waitType, PPCMessage::HEARTBEAT), kInvalidParam.number);
        EXPECT_THAT(Lines(), ElementsAre(IsRunning("SendPpcMsg", 1, waitType), kBadWaitType));
    }
    EXPECT_TRUE(NobodyConnects());
}

TEST_F(GakTest, DevicesAbove3AreRefused)
{
    for (const uint32_t device : {4U, 0x80000000U, 0xFFFFFFFFU}) {
        log_.Clear();
        EXPECT_EQ(client_.SendPpcMsg(device, 7, PPCMessage::HEARTBEAT), kInvalidParam.number);
        EXPECT_THAT(Lines(), ElementsAre(IsRunning("SendPpcMsg", device, 7), kBadDevice));  // looked at first
    }
    EXPECT_TRUE(NobodyConnects());
}

TEST_F(GakTest, SendPpcMsgReturnsTheStatusOfTheCodec)
{
    StopListening();
    EXPECT_EQ(client_.SendPpcMsg(1, 1, PPCMessage::HEARTBEAT), kNoSession.number);
    EXPECT_TRUE(log_.HasMessage(LogSink::kError,
                                "[GAKPPCIF] SendMsg() serverId-19280  src_devid 1 ppcSession is not existed",
                                kNoSession.text));
}

// ---- The bytes on the wire ----

pid_t FakeGetPid()
{
    return 300;
}

TEST_F(GakTest, MessagesAreTheseBytes)
{
    ImportHook pid("getpid", reinterpret_cast<void*>(&FakeGetPid));
    ReportCustomStart();
    EXPECT_EQ(GakHeartbeatSend(3, kCompute), 0u);
    EXPECT_EQ(GakDestory(3, kCompute), 0u);
    const char* names[] = {"a", "", "lib"};
    EXPECT_EQ(CreateOrFindCustPid(3, names, 128), 0u);
    const Fd peer = Accept();
    EXPECT_EQ(Hex(ReadExactly(peer, 21, kWait)), "00 00 00 11 0D 00 00 00 08 02 10 03 18 D0 96 01 20 01 28 AC 02");
    EXPECT_EQ(Hex(ReadExactly(peer, 21, kWait)), "00 00 00 11 0D 00 00 00 08 04 10 03 18 D0 96 01 20 01 28 AC 02");
    EXPECT_EQ(Hex(ReadExactly(peer, 36, kWait)),
              "00 00 00 20 1C 00 00 00 08 03 10 03 18 D0 96 01 20 02 28 AC 02 30 80 01 "
              "3A 0A 0A 01 61 0A 00 0A 03 6C 69 62");

    BackgroundCall waiting([] { return GakWaitForShutdown(2, kZolt); });
    const Fd zolt = Accept();
    EXPECT_EQ(Hex(ReadExactly(zolt, 17, kWait)), "00 00 00 0D 09 00 00 00 10 02 18 D0 96 01 28 AC 02");
    // SHUTDOWN of device 2.
    EXPECT_TRUE(WriteAll(zolt, {0, 0, 0, 8, 4, 0, 0, 0, 0x08, 0x05, 0x18, 0x02}));
    EXPECT_EQ(Hex(ReadExactly(zolt, 19, kWait)), "00 00 00 0F 0B 00 00 00 08 01 10 02 18 D0 96 01 28 AC 02");
    EXPECT_EQ(waiting.Result(), 0u);
    client_.Destroy();  // while the process is the one that opened the sessions
}

// ---- Heartbeat and abnormal end ----

TEST_P(GakReportTest, SendsItsMessageAndLogsIt)
{
    EXPECT_EQ(GetParam().call(2, 3), 0u);
    EXPECT_EQ(ReadPpcFrame(Accept(), kWait), FromWorker(GetParam().messageType, 2, kCompute));
    const std::vector<std::string> lines = Lines();
    ASSERT_EQ(lines.size(), 6u);
    EXPECT_EQ(lines[0], IsRunning(GetParam().member, 2, 3));
    EXPECT_EQ(lines[1], IsRunning("SendPpcMsg", 2, 3));
    EXPECT_EQ(lines[4], Line(GetParam().member, std::string("[GAKPPCCLI] Send ") + GetParam().word +
                                                    " success device[2] procType:3" + kTypes + ", subProcPid[" +
                                                    std::to_string(getpid()) + "]"));
    EXPECT_EQ(lines[5], Line(GetParam().name, std::string(GetParam().name) + " exit"));
}

TEST_P(GakReportTest, FailureIsLoggedAndReturned)
{
    for (const uint32_t device : {4U, 0U}) {
        const GakWaitType waitType = device == 0 ? 9 : 0xFFFFFFFF;
        log_.Clear();
        EXPECT_EQ(GetParam().call(device, waitType), kCreateFail.number);
        EXPECT_THAT(Lines(),
                    ElementsAre(IsRunning(GetParam().member, device, waitType),
                                IsRunning("SendPpcMsg", device, waitType), device == 4 ? kBadDevice : kBadWaitType,
                                Line(kCreateFail, GetParam().member,
                                     std::string("[GAKPPCCLI] Send ") + GetParam().word + " fail device[" +
                                         std::to_string(device) + "],procType:" + std::to_string(waitType) + kTypes +
                                         ", subProcPid[" + std::to_string(getpid()) + "]")));
    }
}

TEST_P(GakReportTest, WithoutADaemonItFailsAndLaterSucceeds)
{
    StopListening();
    EXPECT_EQ(GetParam().call(0, kZolt), kCreateFail.number);
    Listen();
    EXPECT_EQ(GetParam().call(0, kZolt), 0u);
}

TEST_P(GakReportTest, ExceptionIsCaught)
{
    CountingHook<DrvInit> inits;
    inits.OnCall([](uint64_t number) -> std::optional<int> {
        if (number == 1) {
            throw std::runtime_error("first");
        }
        throw 2;
    });
    for (int i = 0; i < 2; ++i) {
        log_.Clear();
        EXPECT_EQ(GetParam().call(0, kZolt), kCreateFail.number);
        EXPECT_THAT(Lines(), ElementsAre(IsRunning(GetParam().member, 0, kZolt), IsRunning("SendPpcMsg", 0, kZolt),
                                         Line(kCreateFail, GetParam().name, GetParam().caught)));
    }
    inits.Reset();
    EXPECT_EQ(GetParam().call(0, kZolt), 0u);
}

// A call that carries a status is dropped below the library's level; a plain one is the sink's to judge.
TEST_P(GakReportTest, ExitLineCarriesAStatus)
{
    log_.SetLibraryLevel(2);
    qel::QELLog::GetInstance().QELRefreshLevel();
    EXPECT_EQ(GetParam().call(0, kZolt), 0u);
    EXPECT_THAT(Lines(), Contains(IsRunning("SendPpcMsg", 0, kZolt)));
    EXPECT_FALSE(log_.Has(LogSink::kInfo, " exit"));
}

TEST_F(GakTest, HeartbeatBeforeAnySessionOpensItAndTheClientRuns)
{
    const Fd peer = SendFirstHeartbeat(0, kZolt);
    client_.Destroy();
    EXPECT_TRUE(ExpectEof(peer, kWait));
    EXPECT_EQ(Lines().back(), Line("Destroy", "[GAKPPCCLI]  Destroy() exit"));
}

TEST_F(GakTest, GakDestoryLeavesSessionsAndClientInPlace)
{
    CountingHook<DrvSessionDestroy> sessionDestroys;
    CountingHook<DrvUninit> uninits;
    Worker worker = Start(1, kCompute);
    EXPECT_EQ(GakDestory(1, kCompute), 0u);
    EXPECT_EQ(ReadPpcFrame(worker.peer, kWait), FromWorker(kAbnormal, 1, kCompute));
    EXPECT_EQ(GakHeartbeatSend(1, kCompute), 0u);
    EXPECT_EQ(ReadPpcFrame(worker.peer, kWait), FromWorker(kHeartbeat, 1, kCompute));
    EXPECT_TRUE(NobodyConnects());
    EXPECT_EQ(sessionDestroys.Count(), 0u);
    EXPECT_EQ(uninits.Count(), 0u);
    Shutdown(worker, 1, kCompute);
}

// ---- Waiting for the shutdown ----

TEST_F(GakTest, WaitForShutdownReportsTheStartAndAnswersTheShutdown)
{
    Worker worker = Start(0, kCustomCompute);
    Shutdown(worker, 0, kCustomCompute);
    const std::vector<std::string> lines = Lines();
    EXPECT_EQ(lines[0], IsRunning("GakWaitForShutdownProc", 0, kCustomCompute));
    EXPECT_EQ(lines[1], IsRunning("SendPpcMsg", 0, kCustomCompute));
    EXPECT_EQ(lines.back(), Line("GakWaitForShutdown", "GakWaitForShutdown exit"));
}

TEST_F(GakTest, ExitLinesOfTheWaitingFunctionsArePlain)
{
    log_.SetLibraryLevel(2);
    qel::QELLog::GetInstance().QELRefreshLevel();
    Worker worker = Start(0, kCompute);
    ReportCustomStart();
    EXPECT_EQ(CreateOrFindCustPid(0, nullptr, 0), 0u);
    EXPECT_THAT(Lines(), Contains(Line("CreateOrFindCustPid", "CreateOrFindCustPid exit")));
    EXPECT_TRUE(ReadPpcFrame(worker.peer, kWait).has_value());
    Shutdown(worker, 0, kCompute);
    EXPECT_THAT(Lines(), Contains(Line("GakWaitForShutdown", "GakWaitForShutdown exit")));
}

TEST_F(GakTest, WaitForShutdownOfDevice3Proceeds)
{
    Worker worker = Start(3, kCompute);
    Shutdown(worker, 3, kCompute);
}

TEST_F(GakTest, WaitForShutdownOfDevice4SendsNothing)
{
    EXPECT_EQ(GakWaitForShutdown(4, kCompute), kCreateFail.number);
    EXPECT_TRUE(NobodyConnects());
    EXPECT_THAT(
        Lines(),
        ElementsAre(IsRunning("GakWaitForShutdownProc", 4, kCompute), IsRunning("SendPpcMsg", 4, kCompute), kBadDevice,
                    Line(kCreateFail, "GakWaitForShutdownProc", "[GAKPPCCLI] GakWaitForShutdownProc() SendData fail"),
                    Line(kCreateFail, "GakWaitForShutdown", "GakWaitForShutdown execute failed")));
}

TEST_F(GakTest, WaitForShutdownWithoutADaemonFails)
{
    StopListening();
    EXPECT_EQ(client_.GakWaitForShutdownProc(0, kCompute), kCreateFail.number);
    EXPECT_EQ(GakWaitForShutdown(0, kCompute), kCreateFail.number);
}

TEST_F(GakTest, WaitForShutdownFailsWhenTheDaemonGoes)
{
    Worker worker = Start(1, kZolt);
    log_.Clear();
    worker.peer.Reset();
    EXPECT_EQ(worker.waiting->Result(), kCreateFail.number);
    EXPECT_THAT(Lines(), ElementsAre(Line(kSocketClosed, "RecvData",
                                          "[GAKPPCCLI] recvdata device 1 client receive message failed"),
                                     Line(kCreateFail, "GakWaitForShutdown", "GakWaitForShutdown execute failed")));
}

TEST_F(GakTest, WaitForShutdownProcReturnsTheStatusOfTheLoop)
{
    BackgroundCall waiting([this] { return client_.GakWaitForShutdownProc(1, kZolt); });
    Fd peer = Accept();
    EXPECT_EQ(ReadPpcFrame(peer, kWait), FromWorker(kStartRsp, 1, kZolt));
    peer.Reset();
    EXPECT_EQ(waiting.Result(), kSocketClosed.number);
}

TEST_F(GakTest, WaitForShutdownWhoseAnswerCannotBeSentFails)
{
    Worker worker = Start(1, kZolt);
    CountingHook<DrvSend> sends;
    sends.FailCall(1, PPC_ERR_SEND, 0);
    log_.Clear();
    ASSERT_TRUE(WriteAll(worker.peer, PpcFrame(FromDaemon(kShutdown, 1))));
    EXPECT_EQ(worker.waiting->Result(), kCreateFail.number);
    EXPECT_THAT(Lines(), Contains(Line(kSendRecvFail, "RecvMsgProc", "[PPCClient] SendCloseRsp error")));
    EXPECT_EQ(Lines().back(), Line(kCreateFail, "GakWaitForShutdown", "GakWaitForShutdown execute failed"));
}

class GakOddWaitTypeTest : public GakTest, public testing::WithParamInterface<GakWaitType> {};
INSTANTIATE_TEST_SUITE_P(WaitTypes, GakOddWaitTypeTest, testing::Values(3U, 0xFFFFFFFFU),
                         [](const auto& waitType) { return waitType.param == 3 ? "Three" : "MinusOne"; });

TEST_P(GakOddWaitTypeTest, GoesOutAsComputeAndWaitsOnASecondSession)
{
    BackgroundCall waiting([] { return GakWaitForShutdown(1, GetParam()); });
    const Fd compute = Accept();
    EXPECT_EQ(ReadPpcFrame(compute, kWait), FromWorker(kStartRsp, 1, kCompute));
    const Fd second = Accept();
    ASSERT_TRUE(second.valid());
    ASSERT_TRUE(WriteAll(second, PpcFrame(FromDaemon(kShutdown, 1))));
    EXPECT_EQ(ReadPpcFrame(second, kWait), FromWorker(kShutdownRsp, 1, 3));
    EXPECT_EQ(waiting.Result(), 0u);
    // It is the session of key + 3, the other one is COMPUTE's.
    EXPECT_NE(client_.GetPpcSession(1, PPCMessage::MAXPROCTYPE), client_.GetPpcSession(1, PPCMessage::COMPUTE));
    EXPECT_TRUE(NobodyConnects());
}

TEST_F(GakTest, ExceptionWhileWaitingForTheShutdownIsCaught)
{
    CountingHook<DrvInit> inits;
    inits.OnCall([](uint64_t) -> std::optional<int> { throw 1; });
    EXPECT_EQ(GakWaitForShutdown(0, kCompute), kCreateFail.number);
    EXPECT_THAT(Lines(),
                ElementsAre(IsRunning("GakWaitForShutdownProc", 0, kCompute), IsRunning("SendPpcMsg", 0, kCompute),
                            Line(kCreateFail, "GakWaitForShutdown", "catch exception while gak wait for shutdown"),
                            Line(kCreateFail, "GakWaitForShutdown", "GakWaitForShutdown execute failed")));
}

// ---- The custom process ----

const std::string kCustFailed = Line(kCreateFail, "CreateOrFindCustPid", "CreateOrFindCustPid execute failed");

TEST_F(GakTest, CustPidIsRefusedBeforeAnyOtherMessage)
{
    ReportCustomStart();
    log_.Clear();
    std::vector<std::string> none;
    EXPECT_EQ(client_.CreateOrFindCustPid(none, 1), kCreateFail.number);
    EXPECT_THAT(log_.Lines(), IsEmpty());
    EXPECT_EQ(CreateOrFindCustPid(0, nullptr, 1), kCreateFail.number);
    EXPECT_THAT(Lines(), ElementsAre(kCustFailed));
    // A refused message counts for nothing.
    EXPECT_EQ(GakHeartbeatSend(4, kCompute), kCreateFail.number);
    EXPECT_EQ(GakHeartbeatSend(0, 4), kCreateFail.number);
    EXPECT_EQ(CreateOrFindCustPid(0, nullptr, 1), kCreateFail.number);
    EXPECT_TRUE(NobodyConnects());
}

TEST_F(GakTest, CustPidAsksOverTheComputeSessionOfTheLastDevice)
{
    ReportCustomStart();
    const Fd zolt = SendFirstHeartbeat(0, kZolt);
    const Fd custom = SendFirstHeartbeat(2, kCustomCompute);
    log_.Clear();
    const char* names[] = {"libone.so", "libtwo.so", "libone.so"};
    EXPECT_EQ(CreateOrFindCustPid(3, names, 4711), 0u);
    const Fd compute = Accept();
    RawMessage expected = FromWorker(kNotifyVexoInfo, 2, kCustomCompute);
    expected.host_pid = 4711;
    expected.lib_names = {"libone.so", "libtwo.so", "libone.so"};
    EXPECT_EQ(ReadPpcFrame(compute, kWait), expected);
    EXPECT_EQ(Lines().back(), Line("CreateOrFindCustPid", "CreateOrFindCustPid exit"));
}

TEST_F(GakTest, CustPidIsTracedBeforeItsMessageAndAfterTheAnswer)
{
    GAKPPC_SKIP_WITHOUT_TRACEPOINTS();
    const Fd zolt = SendFirstHeartbeat(0, kZolt);
    const Fd compute = SendFirstHeartbeat(3, kCompute);
    const TracepointLog traced({"custom_process_asked", "message_sending", "custom_process_found"});
    BackgroundCall call([] { return CreateOrFindCustPid(0, nullptr, 4711); });
    EXPECT_TRUE(ReadPpcFrame(compute, kWait).has_value());
    EXPECT_EQ(traced.Hits().size(), 2u);
    ReportCustomStart();
    EXPECT_EQ(call.Result(), 0u);
    const std::vector<TracepointHit> hits = traced.Hits();
    ASSERT_EQ(hits.size(), 3u);
    EXPECT_EQ(hits[0].name, "custom_process_asked");
    EXPECT_EQ(hits[1].name, "message_sending");
    EXPECT_EQ(hits[2].name, "custom_process_found");
    EXPECT_THAT(hits[0].arguments, ElementsAre(3, OwnPid()));
    EXPECT_EQ(hits[2].arguments, hits[0].arguments);
}

TEST_F(GakTest, CustPidReadsNoMoreNamesThanTheCount)
{
    ReportCustomStart();
    const Fd peer = SendFirstHeartbeat(0, kCompute);
    const char* names[] = {"one", "two", nullptr};
    EXPECT_EQ(CreateOrFindCustPid(1, names, 0), 0u);
    EXPECT_EQ(ReadPpcFrame(peer, kWait).value().lib_names, std::vector<std::string>{"one"});
}

TEST_F(GakTest, CustPidWithCount0SendsPresentAndEmptyLibNames)
{
    ReportCustomStart();
    const Fd peer = SendFirstHeartbeat(1, kCompute);
    EXPECT_EQ(CreateOrFindCustPid(0, nullptr, 0), 0u);
    const std::optional<Bytes> payload = ReadFrame(peer, kWait);
    ASSERT_TRUE(payload.has_value());
    const Bytes tail(payload->end() - 2, payload->end());
    EXPECT_EQ(Hex(tail), "3A 00");
    RawMessage expected = FromWorker(kNotifyVexoInfo, 1, kCustomCompute);
    expected.lib_names.emplace();
    EXPECT_EQ(DecodePayload(*payload), expected);
}

TEST_F(GakTest, NullEntryRaisesALogicErrorThatLeavesTheFunction)
{
    ReportCustomStart();
    const Fd peer = SendFirstHeartbeat(1, kCompute);
    log_.Clear();
    const char* names[] = {"one", nullptr};
    try {
        CreateOrFindCustPid(2, names, 0);
        ADD_FAILURE() << "nothing raised";
    } catch (const std::logic_error& error) {
        EXPECT_STREQ(error.what(), "basic_string::_M_construct null not valid");
    }
    EXPECT_THAT(Lines(), IsEmpty());
    EXPECT_FALSE(WaitReadable(peer, std::chrono::seconds(0)));
}

TEST_F(GakTest, NullListWithACountFails)
{
    ReportCustomStart();
    const Fd peer = SendFirstHeartbeat(1, kCompute);
    log_.Clear();
    EXPECT_EQ(CreateOrFindCustPid(1, nullptr, 0), kCreateFail.number);
    EXPECT_EQ(CreateOrFindCustPid(0xFFFFFFFF, nullptr, 0), kCreateFail.number);
    EXPECT_THAT(Lines(), ElementsAre(kCustFailed, kCustFailed));
    EXPECT_FALSE(WaitReadable(peer, std::chrono::seconds(0)));
}

TEST_F(GakTest, LibNamesThatCannotBeCreatedFailWithoutSending)
{
    const Fd peer = SendFirstHeartbeat(1, kCompute);
    log_.Clear();
    {
        CountingHook<calls::OperatorNew> news;
        news.OnCall([](uint64_t, size_t) -> std::optional<void*> { throw std::bad_alloc(); });
        EXPECT_EQ(CreateOrFindCustPid(0, nullptr, 0), kCreateFail.number);  // and does not wait
    }
    EXPECT_TRUE(log_.HasMessage(LogSink::kError, "CreateOrFindCustPid execute failed"));
    EXPECT_FALSE(WaitReadable(peer, std::chrono::seconds(0)));
}

TEST_F(GakTest, NamesThatCannotBeCopiedFailWithoutRaising)
{
    ReportCustomStart();
    const Fd peer = SendFirstHeartbeat(1, kCompute);
    {
        CountingHook<calls::OperatorNew> news;
        news.OnCall([](uint64_t, size_t) -> std::optional<void*> { throw std::bad_alloc(); });
        const char* names[] = {"one"};
        EXPECT_EQ(CreateOrFindCustPid(1, names, 0), kCreateFail.number);
    }
    EXPECT_FALSE(WaitReadable(peer, std::chrono::seconds(0)));
}

TEST_F(GakTest, StartOfTheCustomProcessWakesEveryWaiter)
{
    Worker worker = Start(1, kCompute);
    const auto ask = [] { return CreateOrFindCustPid(0, nullptr, 0); };
    BackgroundCall first(ask);
    BackgroundCall second(ask);
    EXPECT_EQ(ReadPpcFrame(worker.peer, kWait).value().type, kNotifyVexoInfo);
    EXPECT_EQ(ReadPpcFrame(worker.peer, kWait).value().type, kNotifyVexoInfo);
    // What does not report the custom process wakes nobody, and the loop goes on.
    log_.Clear();
    for (const RawMessage& other : {FromDaemon(kStartRsp, 1, kZolt), FromDaemon(kStartRsp, 1, kCompute),
                                    FromDaemon(kStartRsp, 1, 3), FromDaemon(kHeartbeat, 1, kCustomCompute)}) {
        ASSERT_TRUE(WriteAll(worker.peer, PpcFrame(other)));
    }
    ASSERT_TRUE(log_.WaitFor("no match continue", kWait, 4));
    EXPECT_FALSE(first.Returned());
    EXPECT_FALSE(second.Returned());
    EXPECT_FALSE(log_.Has(LogSink::kInfo, "CreateOrFindCustPid exit"));

    ASSERT_TRUE(WriteAll(worker.peer, PpcFrame(FromDaemon(kStartRsp, 0, kCustomCompute))));  // dest_id plays no part
    EXPECT_EQ(first.Result(), 0u);
    EXPECT_EQ(second.Result(), 0u);
    ASSERT_TRUE(log_.WaitFor("no match continue", kWait, 5));  // the loop may still be at it
    EXPECT_THAT(Lines(), Contains(Line("RecvMsgProc",
                                       "[PPCClient] RecvMsgProc() device[1] procType[1] msgType[0] no "
                                       "match continue"))
                             .Times(4));
    Shutdown(worker, 1, kCompute);
}

TEST_F(GakTest, SecondCustPidAfterTheStartDoesNotWait)
{
    Worker worker = Start(1, kCompute);
    BackgroundCall first([] { return CreateOrFindCustPid(0, nullptr, 0); });
    ASSERT_TRUE(WriteAll(worker.peer, PpcFrame(FromDaemon(kStartRsp, 1, kCustomCompute))));
    EXPECT_EQ(first.Result(), 0u);
    EXPECT_EQ(ReadPpcFrame(worker.peer, kWait).value().type, kNotifyVexoInfo);
    Shutdown(worker, 1, kCompute);
    // Nobody receives any more.
    BackgroundCall second([] { return CreateOrFindCustPid(0, nullptr, 0); });
    EXPECT_EQ(second.Result(), 0u);
    EXPECT_EQ(ReadPpcFrame(worker.peer, kWait).value().type, kNotifyVexoInfo);
}

TEST_F(GakTest, CustPidWhoseSendFailsStillWaits)
{
    Worker worker = Start(1, kCompute);
    CountingHook<DrvSend> sends;
    sends.FailCall(1, PPC_ERR_SEND, 0);
    BackgroundCall asking([] { return CreateOrFindCustPid(0, nullptr, 0); });
    ASSERT_TRUE(log_.WaitFor("[GAKPPCIF] SendMsg() Send message buffer fail", kWait));
    // Every message that the loop handles meanwhile would let a call that does not wait return.
    ASSERT_TRUE(WriteAll(worker.peer, PpcFrame(FromDaemon(kHeartbeat, 1))));
    ASSERT_TRUE(log_.WaitFor("no match continue", kWait));
    EXPECT_FALSE(asking.Returned());
    EXPECT_FALSE(log_.Has(LogSink::kError, "CreateOrFindCustPid execute failed"));
    ASSERT_TRUE(WriteAll(worker.peer, PpcFrame(FromDaemon(kStartRsp, 1, kCustomCompute))));
    EXPECT_EQ(asking.Result(), kCreateFail.number);
    EXPECT_THAT(Lines(), Contains(kCustFailed));
    Shutdown(worker, 1, kCompute);
}

TEST_F(GakTest, CustPidMemberReturnsTheStatusOfTheSend)
{
    ReportCustomStart();
    StopListening();
    EXPECT_EQ(GakHeartbeatSend(1, kCompute), kCreateFail.number);  // records the device all the same
    std::vector<std::string> none;
    EXPECT_EQ(client_.CreateOrFindCustPid(none, 1), kNoSession.number);
    EXPECT_EQ(CreateOrFindCustPid(0, nullptr, 1), kCreateFail.number);
}

TEST_F(GakTest, ExceptionInCustPidIsCaught)
{
    const Fd peer = SendFirstHeartbeat(1, kCompute);
    CountingHook<DrvInit> inits;
    inits.OnCall([](uint64_t) -> std::optional<int> { throw std::logic_error("basic_string"); });
    log_.Clear();
    EXPECT_EQ(CreateOrFindCustPid(0, nullptr, 0), kCreateFail.number);
    EXPECT_THAT(Lines(),
                ElementsAre(Line(kCreateFail, "CreateOrFindCustPid", "catch exception while gak wait for shutdown"),
                            kCustFailed));
}

// ---- ppcInit ----

int CreateDirAnswers77()
{
    return 77;
}

TEST_F(GakTest, PpcInitReturnsTheResultOfCreateDirAndTouchesNoClient)
{
    EXPECT_EQ(ppcInit(), 0);
    ImportHook createDir("drvPpcCreateDir", reinterpret_cast<void*>(&CreateDirAnswers77));
    EXPECT_EQ(ppcInit(), 77);
    EXPECT_THAT(Lines(), IsEmpty());
    client_.Destroy();
    EXPECT_THAT(Lines(), Contains(Line(kDriverError, "Destroy", "[GAKPPCCLI]  Destroy() ppcclient not run")));
}

// ---- Several threads ----

TEST_F(GakTest, ThreadsShareASessionAndTheirFramesStayWhole)
{
    constexpr int kEach = 40;
    Worker worker = Start(1, kCompute);
    ReportCustomStart();
    const std::string longName(300000, 'n');  // more than the socket takes at once
    const auto repeat = [](const std::function<uint32_t()>& call) {
        return [call] {
            uint32_t failures = 0;
            for (int i = 0; i < kEach; ++i) {
                failures += call() != 0;
            }
            return failures;
        };
    };
    BackgroundCall heartbeats(repeat([] { return GakHeartbeatSend(1, kCompute); }));
    BackgroundCall otherHeartbeats(repeat([] { return GakHeartbeatSend(1, kCompute); }));
    BackgroundCall abnormals(repeat([] { return GakDestory(1, kCompute); }));
    BackgroundCall requests(repeat([&] {
        const char* name = longName.c_str();
        return CreateOrFindCustPid(1, &name, 5);
    }));
    RawMessage request = FromWorker(kNotifyVexoInfo, 1, kCustomCompute);
    request.host_pid = 5;
    request.lib_names = {longName};
    std::array<int, 3> seen{};
    for (int i = 0; i < 4 * kEach; ++i) {
        const std::optional<RawMessage> message = ReadPpcFrame(worker.peer, kWait);
        ASSERT_TRUE(message.has_value());
        seen[0] += message == FromWorker(kHeartbeat, 1, kCompute);
        seen[1] += message == FromWorker(kAbnormal, 1, kCompute);
        seen[2] += message == request;
    }
    EXPECT_THAT(seen, ElementsAre(2 * kEach, kEach, kEach));
    for (BackgroundCall* calls : {&heartbeats, &otherHeartbeats, &abnormals, &requests}) {
        EXPECT_EQ(calls->Result(), 0u);
    }
    Shutdown(worker, 1, kCompute);
}

TEST_F(GakTest, NothingBreaksIntoAFrameThatIsHalfwayOut)
{
    ReportCustomStart();
    const Fd peer = SendFirstHeartbeat(1, kCompute);
    CountingHook<DrvSend> sends;
    const std::string longName(8U << 20, 'n');  // no socket takes it whole
    BackgroundCall request([&] {
        const char* name = longName.c_str();
        return CreateOrFindCustPid(1, &name, 0);
    });
    ASSERT_TRUE(WaitReadable(peer, kWait));
    const auto sendHeartbeat = [] { return GakHeartbeatSend(1, kCompute); };
    BackgroundCall first(sendHeartbeat);
    BackgroundCall second(sendHeartbeat);
    ASSERT_TRUE(WaitUntil([&] { return sends.Count() == 3; }, kWait));
    const std::optional<RawMessage> whole = ReadPpcFrame(peer, kWait);
    ASSERT_TRUE(whole.has_value());
    EXPECT_TRUE(whole->lib_names == std::vector<std::string>{longName});
    EXPECT_EQ(ReadPpcFrame(peer, kWait), FromWorker(kHeartbeat, 1, kCompute));
    EXPECT_EQ(ReadPpcFrame(peer, kWait), FromWorker(kHeartbeat, 1, kCompute));
    EXPECT_EQ(request.Result(), 0u);
}

TEST_F(GakTest, WorkersOfSeveralDevicesWaitAtOnce)
{
    std::vector<Worker> workers;
    for (uint32_t device = 0; device < 4; ++device) {
        workers.push_back(Start(device, kCompute));
    }
    for (uint32_t device = 4; device-- > 0;) {
        Shutdown(workers[device], device, kCompute);
    }
}

}  // namespace
}  // namespace gaktest
