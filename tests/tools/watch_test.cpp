#include <linux/magic.h>
#include <sys/mount.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>

#include "tool.h"

namespace gaktest {
namespace {

// bpftrace compiles a program before it attaches.
constexpr std::chrono::seconds kAttachLimit{60};
constexpr char kTracing[] = "/sys/kernel/tracing";

bool IsTracefsMounted()
{
    struct statfs filesystem {};
    return statfs(kTracing, &filesystem) == 0 && filesystem.f_type == TRACEFS_MAGIC;
}

// In the mount namespace of this test alone. Why nothing can be watched here, empty if it can.
std::string PrepareTracing()
{
#ifdef GAKPPC_EMULATED
    return "the emulator runs no code that a breakpoint was written into";
#endif
#ifndef GAKPPC_HAS_TRACEPOINTS
    return "the library is built without tracepoints";
#endif
    if (!RunTool("sh", {"-c", "command -v bpftrace"}).status.ExitedWith(0)) {
        return "bpftrace is not installed";
    }
    if (!IsTracefsMounted() && mount("tracefs", kTracing, "tracefs", 0, nullptr) == -1) {
        return std::string("tracefs cannot be mounted here: ") + strerror(errno);
    }
    return "";
}

// The children of a process' main thread.
std::vector<pid_t> ChildrenOf(pid_t pid)
{
    const std::string id = std::to_string(pid);
    std::ifstream in("/proc/" + id + "/task/" + id + "/children");
    return {std::istream_iterator<pid_t>(in), {}};
}

// Not what has ended and is waited for by nobody, as process 1 of a container may leave it.
bool Runs(pid_t pid)
{
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string number, name, state;
    return stat >> number >> name >> state && state != "Z" && state != "X";
}

std::string Line(const std::string& text, const std::string& part)
{
    const size_t at = text.find(part);
    if (at == std::string::npos) {
        return "";
    }
    const size_t begin = text.rfind('\n', at) + 1;
    return text.substr(begin, text.find('\n', at) - begin);
}

class WatchTest : public testing::Test {
protected:
    void SetUp() override
    {
        const std::string reason = PrepareTracing();
        if (!reason.empty()) {
            GTEST_SKIP() << reason;
        }
        ASSERT_NO_FATAL_FAILURE(StartDaemon());
    }

    void StartDaemon(const std::string& program = kGakppcd, std::vector<std::string> arguments = {})
    {
        daemon_ = std::make_unique<Tool>(program, std::move(arguments));
        ASSERT_TRUE(daemon_->WaitForOut("SERVING", kAttachLimit));
    }

    // A worker that has reported.
    std::unique_ptr<Tool> StartWorker(std::vector<std::string> more = {}, const char* heartbeat = "0.1")
    {
        const size_t before = CountOf(daemon_->out(), "START_RSP");
        std::vector<std::string> arguments{"worker", "--device", "1", "--heartbeat", heartbeat};
        arguments.insert(arguments.end(), more.begin(), more.end());
        auto worker = std::make_unique<Tool>(kGakppctl, arguments);
        EXPECT_TRUE(daemon_->WaitUntilOutput([&] { return CountOf(daemon_->out(), "START_RSP") > before; }, kLimit));
        return worker;
    }

    std::unique_ptr<Tool> Watch(std::vector<std::string> arguments = {})
    {
        arguments.insert(arguments.begin(), "watch");
        auto watch = std::make_unique<Tool>(kGakppctl, arguments);
        watch->WaitUntilOutput([&] { return watch->err().find('\n') != std::string::npos; }, kAttachLimit);
        EXPECT_NE(watch->err().find("watching process "), std::string::npos) << watch->err();
        return watch;
    }

    static void ExpectOrderlyEnd(Tool& watch, int signal = SIGINT)
    {
        watch.Kill(signal);
        EXPECT_TRUE(watch.Finish(kAttachLimit).ExitedWith(0)) << watch.err();
    }

    bool DaemonStillHears(const Tool& worker)
    {
        const std::string sender = std::to_string(worker.pid());
        const size_t before = CountOf(daemon_->out(), sender);
        return daemon_->WaitUntilOutput([&] { return CountOf(daemon_->out(), sender) > before; }, kLimit);
    }

    std::unique_ptr<Tool> daemon_;
};

std::string SentBy(pid_t pid)
{
    return " pid " + std::to_string(pid) + " uid 0 ";
}

TEST_F(WatchTest, ShowsWorkersThatConnectedBeforeIt)
{
    const auto worker = StartWorker();
    const auto watch = Watch();
    ASSERT_TRUE(watch->WaitForOut("#1 ->" + SentBy(worker->pid()) + "HEARTBEAT {\"type\":\"HEARTBEAT\",\"src_id\":1,"));
    daemon_->Write("shutdown all\n");
    ASSERT_TRUE(watch->WaitForOut("#1 <-" + SentBy(daemon_->pid()) + "SHUTDOWN {"));
    ASSERT_TRUE(watch->WaitForOut("#1 ->" + SentBy(worker->pid()) + "SHUTDOWN_RSP {"));
    ASSERT_TRUE(watch->WaitForOut("#1 --" + SentBy(worker->pid()) + "close\n"));
    ExpectOrderlyEnd(*watch);
    const std::string& out = watch->out();
    EXPECT_LT(out.find(" SHUTDOWN {"), out.find(" SHUTDOWN_RSP {")) << out;
}

TEST_F(WatchTest, JsonFitsTheSchemaOfTheTap)
{
    const auto watch = Watch({"--json", "--hex"});
    const auto worker = StartWorker();
    ASSERT_TRUE(watch->WaitForOut("\"event\":\"open\",\"connection\":1,\"pid\":" + std::to_string(worker->pid())));
    ASSERT_TRUE(watch->WaitForOut("\"type\":\"HEARTBEAT\""));
    daemon_->Write("shutdown all\n");
    ASSERT_TRUE(watch->WaitForOut("\"event\":\"close\""));
    ExpectOrderlyEnd(*watch, SIGTERM);
    EXPECT_TRUE(FitsSchema(watch->out(), "record"));
    EXPECT_EQ(Line(watch->out(), "START_RSP").find("\"hex\":\"000000"),
              Line(watch->out(), "START_RSP").find("\"hex\":\""))
        << watch->out();
    EXPECT_EQ(watch->out().find("problem"), std::string::npos) << watch->out();
}

TEST_F(WatchTest, WorkerIsWatchedFromItsOwnEnd)
{
    const auto worker = StartWorker();
    const auto watch = Watch({"--pid", std::to_string(worker->pid())});
    ASSERT_TRUE(watch->WaitForOut("#1 ->" + SentBy(worker->pid()) + "HEARTBEAT {"));
    daemon_->Write("shutdown all\n");
    ASSERT_TRUE(watch->WaitForOut("#1 <-" + SentBy(daemon_->pid()) + "SHUTDOWN {"));
    EXPECT_TRUE(watch->Finish(kAttachLimit).ExitedWith(0));
    EXPECT_NE(watch->out().find("SHUTDOWN_RSP"), std::string::npos) << watch->out();
    EXPECT_NE(watch->err().find("process " + std::to_string(worker->pid()) + " has ended\n"), std::string::npos);
}

std::string ManyLibraries(size_t count)
{
    std::string text;
    for (size_t i = 0; i < count; ++i) {
        text += (i == 0 ? "" : ",") + ("libnumber" + std::to_string(10000 + i) + ".so");
    }
    return text;
}

TEST_F(WatchTest, LongMessageIsWholeAndALongerOneIsMarkedAsCut)
{
    const auto watch = Watch({"--json", "--message", "NOTIFY_VEXOINFO", "--count", "2", "--write", "/home/trace"});
    const auto first = StartWorker({"--type", "COMPUTE", "--libs", ManyLibraries(45)});
    ASSERT_TRUE(watch->WaitForOut("libnumber10044.so"));
    const auto second = StartWorker({"--type", "COMPUTE", "--libs", ManyLibraries(500)});
    ASSERT_TRUE(watch->WaitForOut("\"cut\":true"));
    EXPECT_TRUE(watch->Finish(kAttachLimit).ExitedWith(0)) << watch->err();
    const std::string cut = Line(watch->out(), "\"cut\":true");
    EXPECT_NE(cut.find("\"claimed_pid\":" + std::to_string(second->pid())), std::string::npos) << cut;
    EXPECT_NE(cut.find("libnumber10040.so"), std::string::npos) << cut;
    EXPECT_EQ(cut.find("libnumber10100.so"), std::string::npos) << cut;
    EXPECT_EQ(CountOf(watch->out(), "\n"), 2U) << watch->out();
    EXPECT_TRUE(FitsSchema(watch->out(), "record"));
    EXPECT_EQ(Ctl({"decode", "--json", "/home/trace"}).out, watch->out());
}

TEST_F(WatchTest, FiltersDecideWhatIsShownAndCounted)
{
    const auto other = StartWorker();
    const auto worker = StartWorker();
    const auto watch = Watch({"--worker", std::to_string(worker->pid()), "--device", "1", "--message", "HEARTBEAT",
                              "--type", "ZOLT,COMPUTE", "--count", "3"});
    EXPECT_TRUE(watch->Finish(kAttachLimit).ExitedWith(0)) << watch->err();
    EXPECT_EQ(CountOf(watch->out(), "\n"), 3U) << watch->out();
    EXPECT_EQ(CountOf(watch->out(), SentBy(worker->pid()) + "HEARTBEAT {"), 3U) << watch->out();
}

TEST_F(WatchTest, TimeBeginsWhenItIsAttached)
{
    const auto worker = StartWorker();
    const auto watch = Watch({"--for", "1.5"});
    EXPECT_TRUE(watch->Finish(kAttachLimit).ExitedWith(0)) << watch->err();
    EXPECT_NE(watch->out().find("HEARTBEAT"), std::string::npos) << watch->err();
}

TEST_F(WatchTest, EndOnASignalTakesTheTracerWithIt)
{
    const auto watch = Watch();
    const auto tracers = ChildrenOf(watch->pid());
    ASSERT_EQ(tracers.size(), 1U);
    ExpectOrderlyEnd(*watch, SIGHUP);
    EXPECT_FALSE(Runs(tracers.front()));
}

TEST_F(WatchTest, KillTakesTheTracerWithIt)
{
    const auto watch = Watch();
    const auto tracers = ChildrenOf(watch->pid());
    ASSERT_EQ(tracers.size(), 1U);
    watch->Kill(SIGKILL);
    EXPECT_TRUE(watch->Finish().KilledBy(SIGKILL));
    EXPECT_TRUE(WaitUntil([&] { return !Runs(tracers.front()); }, kAttachLimit)) << "although it has nothing to write";
    EXPECT_TRUE(DaemonStillHears(*StartWorker()));
}

TEST_F(WatchTest, TracerThatIsKilledIsReported)
{
    const auto watch = Watch();
    const auto tracers = ChildrenOf(watch->pid());
    ASSERT_EQ(tracers.size(), 1U);
    ASSERT_EQ(kill(tracers.front(), SIGKILL), 0);
    EXPECT_TRUE(watch->Finish(kAttachLimit).ExitedWith(1));
    EXPECT_NE(watch->err().find("bpftrace has ended\n"), std::string::npos) << watch->err();
}

TEST_F(WatchTest, ReaderThatLeavesEndsIt)
{
    const auto worker = StartWorker();
    const auto watch = Watch();
    watch->CloseOutput();
    EXPECT_TRUE(watch->Finish(kAttachLimit).ExitedWith(1));
    EXPECT_EQ(watch->err().find("Broken pipe"), std::string::npos) << "the reader knows that it has left";
}

TEST_F(WatchTest, DaemonIsUnharmedByTwentyWatchesTwoAtATime)
{
    const auto worker = StartWorker({}, "0.01");
    for (int i = 0; i < 10; ++i) {
        const auto first = Watch({"--message", "HEARTBEAT"});
        const auto second = Watch({"--message", "HEARTBEAT"});
        EXPECT_TRUE(first->WaitForOut("HEARTBEAT"));
        EXPECT_TRUE(second->WaitForOut("HEARTBEAT"));
        first->Kill(i % 2 == 0 ? SIGINT : SIGKILL);
        EXPECT_TRUE(second->WaitUntilOutput(
            [&, before = CountOf(second->out(), "\n")] { return CountOf(second->out(), "\n") > before + 5; }, kLimit))
            << "the end of one leaves the other attached";
        ExpectOrderlyEnd(*second);
        EXPECT_EQ(second->out().find("MALFORMED"), std::string::npos) << second->out();
    }
    EXPECT_TRUE(DaemonStillHears(*worker));
    daemon_->Write("shutdown all\n");
    EXPECT_TRUE(daemon_->WaitForOut(" SHUTDOWN_RSP"));  // reads the heartbeats, which would fill the pipe
    daemon_->Write("quit\n");
    EXPECT_TRUE(daemon_->Finish().ExitedWith(0)) << daemon_->err();
}

// The code of the library as it is in the memory of a process, where probes are breakpoints.
std::string CodeOfLibrary(pid_t pid)
{
    const std::string folder = "/proc/" + std::to_string(pid);
    std::ifstream maps(folder + "/maps");
    for (std::string line; std::getline(maps, line);) {
        if (line.find(" r-xp ") != std::string::npos && line.find("/libgakppc.so") != std::string::npos) {
            const size_t begin = std::stoull(line, nullptr, 16);
            const size_t end = std::stoull(line.substr(line.find('-') + 1), nullptr, 16);
            std::string code(end - begin, '\0');
            std::ifstream memory(folder + "/mem", std::ios::binary);
            memory.seekg(static_cast<std::streamoff>(begin));
            memory.read(code.data(), static_cast<std::streamsize>(code.size()));
            return code;
        }
    }
    return "";
}

class WatchEnd : public WatchTest, public testing::WithParamInterface<int> {};

TEST_P(WatchEnd, LeavesTheCodeAsItWas)
{
    const std::string before = CodeOfLibrary(daemon_->pid());
    ASSERT_FALSE(before.empty());
    const auto watch = Watch();
    const auto tracers = ChildrenOf(watch->pid());
    ASSERT_EQ(tracers.size(), 1U);
    EXPECT_NE(CodeOfLibrary(daemon_->pid()), before) << "nothing is attached";
    watch->Kill(GetParam());
    watch->Finish(kAttachLimit);
    EXPECT_TRUE(WaitUntil([&] { return CodeOfLibrary(daemon_->pid()) == before; }, kLimit));
}

INSTANTIATE_TEST_SUITE_P(Signals, WatchEnd, testing::Values(SIGINT, SIGKILL));

class WatchedProgramTest : public WatchTest {
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(WatchTest::SetUp());
        if (IsSkipped()) {
            return;
        }
        ASSERT_TRUE(program_.WaitForOut("READY"));
        watch_ = Watch({"--pid", std::to_string(program_.pid())});
    }

    void Tell(const std::string& word)
    {
        program_.Write(word + "\n");
        EXPECT_TRUE(program_.WaitForOut("DONE " + word + "\n"));
    }

    Tool program_{GAKPPC_WATCHED_PROGRAM, {}};
    std::unique_ptr<Tool> watch_;
};

TEST_F(WatchedProgramTest, ForkedChildGoesItsOwnWay)
{
    Tell("fork");
    ASSERT_TRUE(daemon_->WaitForOut("HEARTBEAT"));
    Tell("report");
    ASSERT_TRUE(watch_->WaitForOut("HEARTBEAT"));
    ExpectOrderlyEnd(*watch_);
    EXPECT_EQ(CountOf(watch_->out(), " HEARTBEAT {"), 1U) << watch_->out();
    EXPECT_EQ(CountOf(watch_->out(), " HEARTBEAT {"), CountOf(watch_->out(), "->" + SentBy(program_.pid())));
}

TEST_F(WatchedProgramTest, ProgramThatExecutesAnotherOneEndsIt)
{
    Tell("report");
    ASSERT_TRUE(watch_->WaitForOut("HEARTBEAT"));
    program_.Write("exec\n");
    EXPECT_TRUE(watch_->Finish(kAttachLimit).ExitedWith(0));
    EXPECT_NE(watch_->err().find("process " + std::to_string(program_.pid()) + " has executed another program"),
              std::string::npos)
        << watch_->err();
    EXPECT_EQ(CountOf(watch_->out(), " HEARTBEAT {"), 1U) << watch_->out();
}

TEST_F(WatchTest, TapInFrontOfTheDaemonIsNotTakenForIt)
{
    Tool tap(kGakppctl, {"tap"});
    ASSERT_TRUE(tap.WaitForErr("in place"));
    const auto watch = Watch();
    EXPECT_NE(watch->err().find("watching process " + std::to_string(daemon_->pid())), std::string::npos);
    ExpectOrderlyEnd(*watch);
}

// A copy of the libraries that gakppcd has loaded, in an empty folder.
std::string CopyOfLibraries()
{
    return "cp $(LD_TRACE_LOADED_OBJECTS=1 " + std::string(kGakppcd) +
           " | sed -n 's/.* => \\(.*gakppc.*\\) (.*/\\1/p') . && ";
}

class OtherLibraryTest : public WatchTest {
protected:
    void SetUp() override
    {
        const std::string reason = PrepareTracing();
        if (!reason.empty()) {
            GTEST_SKIP() << reason;
        }
    }

    void StartWith(const std::string& commands)
    {
        StartDaemon("sh", {"-c", "set -e; mkdir /home/copy; cd /home/copy; " + commands +
                                     " LD_LIBRARY_PATH=/home/copy exec " + std::string(kGakppcd)});
    }
};

TEST_F(OtherLibraryTest, OneThatHasBeenReplacedIsWatched)
{
    ASSERT_NO_FATAL_FAILURE(StartWith(CopyOfLibraries()));
    std::filesystem::remove_all("/home/copy");
    const auto worker = StartWorker();
    if (std::filesystem::read_symlink("/proc/self/ns/pid") != "pid:[4026531836]") {  // not the kernel's first
        const Outcome refused = Ctl({"watch"});
        EXPECT_TRUE(refused.status.ExitedWith(1));
        EXPECT_NE(refused.err.find("outside of this pid namespace"), std::string::npos) << refused.err;
        return;
    }
    const auto watch = Watch();
    EXPECT_TRUE(watch->WaitForOut("->" + SentBy(worker->pid()) + "HEARTBEAT {"));
    ExpectOrderlyEnd(*watch);
}

TEST_F(OtherLibraryTest, OneInAnotherMountNamespaceIsWatched)
{
    ASSERT_NO_FATAL_FAILURE(
        StartDaemon("unshare", {"--mount", "sh", "-c",
                                "set -e; mkdir /home/copy; mount -t tmpfs tmpfs /home/copy; cd /home/copy; " +
                                    CopyOfLibraries() + " LD_LIBRARY_PATH=/home/copy exec " + std::string(kGakppcd)}));
    const auto worker = StartWorker();
    const auto watch = Watch();
    EXPECT_TRUE(watch->WaitForOut("->" + SentBy(worker->pid()) + "HEARTBEAT {"));
    ExpectOrderlyEnd(*watch);
}

TEST_F(OtherLibraryTest, OneWithoutTracepointsIsNamed)
{
    if (!RunTool("objcopy", {"--version"}).status.ExitedWith(0)) {
        GTEST_SKIP() << "objcopy is not installed";
    }
    ASSERT_NO_FATAL_FAILURE(
        StartWith(CopyOfLibraries() + "for l in *gakppc.so*; do objcopy --remove-section .note.stapsdt $l; done;"));
    const Outcome watch = Ctl({"watch"});
    EXPECT_TRUE(watch.status.ExitedWith(1)) << watch.status;
    EXPECT_NE(watch.err.find("/home/copy/libgakppc.so"), std::string::npos) << watch.err;
    EXPECT_NE(watch.err.find("has no tracepoints; without it: gakppctl tap "), std::string::npos) << watch.err;
}

// What is said where there is nothing to watch, or where nobody can. None of these needs a tracer.

bool IsRefused(const Outcome& outcome, int status, const std::string& text)
{
    EXPECT_TRUE(outcome.status.ExitedWith(status)) << outcome.status;
    EXPECT_EQ(CountOf(outcome.err, "\n"), 1U) << outcome.err;
    EXPECT_NE(outcome.err.find(text), std::string::npos) << outcome.err;
    return outcome.out.empty();
}

TEST(WatchRefusal, NoDaemon)
{
    EXPECT_TRUE(IsRefused(Ctl({"watch"}), 3, "no daemon listens at /home/KrovaUser/qel_ppc/sock_server_19280; --pid "));
}

TEST(WatchRefusal, NoSuchProcess)
{
    EXPECT_TRUE(IsRefused(Ctl({"watch", "--pid", "2147483646"}), 1, "process 2147483646: No such process\n"));
}

TEST(WatchRefusal, ProcessWithoutTheLibrary)
{
    const Tool cat("cat", {});
    ASSERT_TRUE(WaitUntil([&] { return IsAsleep(cat.pid()); }, kLimit));
    EXPECT_TRUE(IsRefused(Ctl({"watch", "--pid", std::to_string(cat.pid())}), 1,
                          " (cat) has not loaded libgakppc: there is nothing to watch\n"));
}

// As in a container: root, but not of the machine.
TEST(WatchRefusal, RootOfAUserNamespace)
{
    Tool daemon(kGakppcd, {});
    ASSERT_TRUE(daemon.WaitForOut("SERVING"));
    if (!RunTool("unshare", {"--user", "--map-root-user", "true"}).status.ExitedWith(0)) {
        GTEST_SKIP() << "nobody may make a user namespace here";
    }
    const Outcome watch = RunTool("unshare", {"--user", "--map-root-user", kGakppctl, "watch"});
    EXPECT_TRUE(watch.status.ExitedWith(1)) << watch.status;
    EXPECT_NE(watch.err.find("watch has to run as root"), std::string::npos) << watch.err;
}

TEST(WatchRefusal, UserWhoIsNotRoot)
{
    GAKPPC_SKIP_WITHOUT_OTHER_USERS();
    Tool daemon(kGakppcd, {});
    ASSERT_TRUE(daemon.WaitForOut("SERVING"));
    for (const auto& arguments : {std::vector<std::string>{"watch"},
                                  std::vector<std::string>{"watch", "--pid", std::to_string(daemon.pid())}}) {
        const auto watch = StartCtlAsNobody(arguments);
        EXPECT_TRUE(watch->Finish().ExitedWith(1));
        EXPECT_NE(watch->err().find("watch has to run as root of the machine; without it: gakppctl tap "),
                  std::string::npos)
            << watch->err();
    }
}

class WithoutTracerTest : public testing::Test {
protected:
    void SetUp() override
    {
#ifndef GAKPPC_HAS_TRACEPOINTS
        GTEST_SKIP() << "the library is built without tracepoints";
#endif
        if (!MapsOtherUsers()) {
            GTEST_SKIP() << "this is not root of the machine, which is told first";
        }
        ASSERT_TRUE(daemon_.WaitForOut("SERVING"));
    }

    Tool daemon_{kGakppcd, {}};
};

TEST_F(WithoutTracerTest, BpftraceIsNamed)
{
    Tool watch(kGakppctl, {"watch"}, Tool::Output::kPipe, {"PATH=/nowhere"});
    EXPECT_TRUE(watch.Finish().ExitedWith(1));
    EXPECT_NE(watch.err().find("watch needs bpftrace, which is not installed (Debian package bpftrace); "),
              std::string::npos)
        << watch.err();
}

TEST_F(WithoutTracerTest, TracefsIsNamed)
{
    while (IsTracefsMounted()) {
        ASSERT_EQ(umount2(kTracing, MNT_DETACH), 0) << strerror(errno);
    }
    std::filesystem::create_directory("/home/bin");
    std::filesystem::copy("/bin/true", "/home/bin/bpftrace");
    Tool watch(kGakppctl, {"watch"}, Tool::Output::kPipe, {"PATH=/home/bin"});
    EXPECT_TRUE(watch.Finish().ExitedWith(1));
    EXPECT_NE(watch.err().find("mount -t tracefs tracefs /sys/kernel/tracing\n"), std::string::npos) << watch.err();
}

// A program in bpftrace's place does what bpftrace rarely does.
class OtherTracerTest : public WatchTest {
protected:
    static std::unique_ptr<Tool> WatchWith(const std::string& tracer)
    {
        std::filesystem::create_directory("/home/bin");
        std::ofstream("/home/bin/bpftrace") << "#!/bin/sh\n" << tracer;
        std::filesystem::permissions("/home/bin/bpftrace", std::filesystem::perms::all);
        return std::make_unique<Tool>(kGakppctl, std::vector<std::string>{"watch"}, Tool::Output::kPipe,
                                      std::vector<std::string>{"PATH=/home/bin:/bin"});
    }
};

constexpr char kReportsAttached[] = R"(printf '%s\n' '{"type": "printf", "data": "A\n"}')";

TEST_F(OtherTracerTest, WhatItSaysIsPassedOnWhenTheKernelRefuses)
{
    const auto watch = WatchWith("echo 'ERROR: no such luck' >&2; exit 1\n");
    EXPECT_TRUE(watch->Finish().ExitedWith(1));
    EXPECT_EQ(watch->err(), "gakppctl: bpftrace could not attach\ngakppctl: bpftrace: ERROR: no such luck\n");
}

TEST_F(OtherTracerTest, OneThatMissesASignalGetsAnotherOne)
{
    const auto watch = WatchWith("trap 'taken=$((taken + 1))' INT\n" + std::string(kReportsAttached) +
                                 "\nwhile [ \"${taken:-0}\" -lt 2 ]; do sleep 0.1; done\n");
    EXPECT_TRUE(watch->WaitForErr("watching process"));
    ExpectOrderlyEnd(*watch);
}

TEST_F(OtherTracerTest, OneThatDoesNotEndIsKilledAfterASecondSignal)
{
    const auto watch = WatchWith("trap '' INT\n" + std::string(kReportsAttached) + "\nexec sleep 1000\n");
    EXPECT_TRUE(watch->WaitForErr("watching process"));
    const auto tracers = ChildrenOf(watch->pid());
    ASSERT_EQ(tracers.size(), 1U);
    watch->Kill(SIGINT);
    watch->Kill(SIGTERM);
    EXPECT_TRUE(watch->Finish().ExitedWith(1));
    EXPECT_NE(watch->err().find("bpftrace has not reported all in time: the last messages may be missing\n"),
              std::string::npos)
        << watch->err();
    EXPECT_FALSE(Runs(tracers.front()));
}

}  // namespace
}  // namespace gaktest
