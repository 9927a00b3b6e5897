// Programs that start with some of the descriptors 0, 1 and 2 closed, as some launchers leave them.

#include <csignal>

#include "tap_fixture.h"

namespace gaktest {
namespace {

constexpr int kInput = 1;
constexpr int kOutput = 2;
constexpr int kError = 4;

// Runs a tool with the descriptors of `closed` closed.
std::unique_ptr<Tool> StartWithout(int closed, const std::string& program, const std::vector<std::string>& arguments)
{
    std::string script = R"(exec "$0" "$@")";
    script += (closed & kInput) != 0 ? " <&-" : "";
    script += (closed & kOutput) != 0 ? " >&-" : "";
    script += (closed & kError) != 0 ? " 2>&-" : "";
    std::vector<std::string> words{"-c", script, program};
    words.insert(words.end(), arguments.begin(), arguments.end());
    return std::make_unique<Tool>("sh", words);
}

class ClosedFds : public testing::TestWithParam<int> {
protected:
    static bool OutputIsClosed() { return (GetParam() & kOutput) != 0; }
};

std::string NameOf(const testing::TestParamInfo<int>& info)
{
    const std::string name = std::string((info.param & kInput) != 0 ? "Input" : "") +
                             ((info.param & kOutput) != 0 ? "Output" : "") +
                             ((info.param & kError) != 0 ? "Error" : "");
    return name.empty() ? "None" : name;
}

INSTANTIATE_TEST_SUITE_P(Closed, ClosedFds, testing::Range(0, 8), NameOf);

TEST_P(ClosedFds, WorkerSendsMessagesAndNothingElse)
{
    const Fd listener = RawListen(kServer);
    const auto tool = StartWithout(GetParam(), kGakppctl, {"worker", "--heartbeat", "0.01", "--libs", "liba.so"});
    const Fd worker = RawAccept(listener, kLimit);
    const auto start = ReadPpcFrame(worker, kLimit);
    ASSERT_TRUE(start.has_value());
    EXPECT_EQ(start->type, 0u);
    RawMessage message = FromWorker(0, 0, start->sub_proc_pid);
    int heartbeats = 0;
    bool asked = false;  // for the custom process, on another thread
    while ((heartbeats < 3 || !asked) && message.type < 5) {
        message = ReadPpcFrame(worker, kLimit).value_or(FromWorker(77));
        heartbeats += message.type == 2 ? 1 : 0;
        asked |= message.type == 3;
    }
    EXPECT_LT(message.type, 5u);
    // The custom process runs: one more line of output.
    RawMessage answer = FromWorker(0, kServer, start->sub_proc_pid);
    answer.dest_id = 0;
    answer.proc_type = 2;
    ASSERT_TRUE(WriteAll(worker, PpcFrame(answer)));
    answer.type = 5;
    answer.proc_type = 1;
    ASSERT_TRUE(WriteAll(worker, PpcFrame(answer)));
    while ((message = ReadPpcFrame(worker, kLimit).value_or(FromWorker(77))).type == 2) {
    }
    EXPECT_EQ(message.type, 1u);
    // A heartbeat that was under way may follow.
    for (auto late = ReadPpcFrame(worker, kLimit); late.has_value(); late = ReadPpcFrame(worker, kLimit)) {
        EXPECT_EQ(late->type, 2u);
    }
    EXPECT_TRUE(ExpectEof(worker, kLimit));
    EXPECT_TRUE(tool->Finish().ExitedWith(0)) << tool->err();
}

TEST_P(ClosedFds, DaemonSendsMessagesAndNothingElse)
{
    const auto daemon = StartWithout(GetParam(), kGakppcd, {"--grace", "0.1"});
    Fd worker;
    ASSERT_TRUE(WaitUntil([&worker] { return (worker = RawConnect(kServer)).valid(); }, kLimit));
    ASSERT_TRUE(WriteAll(worker, PpcFrame(FromWorker(0))));
    ASSERT_TRUE(WriteAll(worker, PpcFrame(FromWorker(2))));
    ASSERT_TRUE(WriteAll(RawConnect(kServer), {0, 0, 0, 0}));  // makes the library log
    EXPECT_FALSE(WaitReadable(worker, std::chrono::milliseconds(100)));
    daemon->Kill(SIGTERM);
    EXPECT_EQ(ReadPpcFrame(worker, kLimit).value_or(RawMessage{}).type, 5u);
    EXPECT_TRUE(ExpectEof(worker, kLimit));
    EXPECT_TRUE(daemon->Finish().ExitedWith(1)) << "the worker has not answered; " << daemon->err();
}

TEST_P(ClosedFds, SendSendsItsMessageOrFails)
{
    const Fd listener = RawListen(kServer);
    const auto tool = StartWithout(GetParam(), kGakppctl, {"send", "HEARTBEAT", "--pid", "4711"});
    if (OutputIsClosed()) {
        EXPECT_TRUE(tool->Finish().ExitedWith(1));
        return;
    }
    const Fd worker = RawAccept(listener, kLimit);
    EXPECT_EQ(ReadPpcFrame(worker, kLimit), FromWorker(2));
    EXPECT_TRUE(ExpectEof(worker, kLimit));
    EXPECT_TRUE(tool->Finish().ExitedWith(0)) << tool->err();
}

TEST_P(ClosedFds, TapForwardsWhatWasSentOrFails)
{
    const Fd listener = RawListen(kServer);
    const ino_t inode = FileAt(kSock).st_ino;
    const auto tap = StartWithout(GetParam(), kGakppctl, {"tap", "--count", "1"});
    if (OutputIsClosed()) {
        EXPECT_TRUE(tap->Finish().ExitedWith(1));
        EXPECT_EQ(FileAt(kSock).st_ino, inode);
        return;
    }
    ASSERT_TRUE(WaitUntil([inode] { return FileAt(kSock).st_ino != inode; }, kLimit));
    Fd worker = RawConnect(kServer);
    ASSERT_TRUE(WriteAll(worker, PpcFrame(FromWorker(2))));
    const Fd daemon = RawAccept(listener, kLimit);
    EXPECT_EQ(ReadPpcFrame(daemon, kLimit), FromWorker(2));
    worker.Reset();
    EXPECT_TRUE(ExpectEof(daemon, kLimit));
    EXPECT_TRUE(tap->Finish().ExitedWith(0)) << tap->err();
}

TEST_P(ClosedFds, FailuresAreExitStatusesAndNeverAborts)
{
    for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
             {"decode", "/nowhere"}, {"replay", "/nowhere"}, {"status", "no such text"}}) {
        EXPECT_TRUE(StartWithout(GetParam(), kGakppctl, arguments)->Finish().ExitedWith(1)) << arguments.front();
    }
    EXPECT_TRUE(StartWithout(GetParam(), kGakppctl, {"no-such-command"})->Finish().ExitedWith(2));
    EXPECT_TRUE(StartWithout(GetParam(), kGakppctl, {"--help"})->Finish().ExitedWith(OutputIsClosed() ? 1 : 0));
}

}  // namespace
}  // namespace gaktest
