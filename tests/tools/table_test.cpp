// What gakppcd shows on a terminal.

#include <sys/socket.h>

#include <csignal>

#include "screen.h"

namespace gaktest {
namespace {

const std::string kRestoreCursor = "\0338";

class TableTest : public testing::Test {
protected:
    void Start(TerminalSize size, Tool::Output kind = Tool::Output::kInteractive)
    {
        size_ = size;
        daemon_ = std::make_unique<Tool>(kGakppcd, std::vector<std::string>{"--grace", "0.1"}, kind,
                                         std::vector<std::string>{"TERM=xterm", "NO_COLOR="}, size);
        ASSERT_TRUE(daemon_->WaitForOut("SERVING"));
        ASSERT_TRUE(daemon_->WaitForOut(kRestoreCursor));
    }

    // A worker that reports its start; `type` as on the wire.
    Fd& Join(uint32_t pid, uint32_t device = 1)
    {
        workers_.push_back(RawConnect(kServer));
        Say(workers_.back(), 0, pid, device);
        return workers_.back();
    }

    static void Say(const Fd& worker, uint32_t type, uint32_t pid, uint32_t device = 1)
    {
        EXPECT_TRUE(WriteAll(worker, PpcFrame(FromWorker(type, device, pid))));
    }

    // From the last time that the screen was cleared, up to the last complete drawing.
    Screen Now() const
    {
        const std::string& out = daemon_->out();
        const size_t end = out.rfind(kRestoreCursor) + kRestoreCursor.size();
        const size_t begin = out.rfind("\033[2J", end);
        return {out.substr(begin, end - begin), size_};
    }

    testing::AssertionResult Shows(const std::string& text)
    {
        return daemon_->WaitUntilOutput([&] { return Now().Shows(text); }) ? testing::AssertionSuccess()
                                                                           : testing::AssertionFailure()
                                                                                 << "\"" << text << "\" is not shown:\n"
                                                                                 << Now().Text();
    }

    testing::AssertionResult ShowsNot(const std::string& text)
    {
        return daemon_->WaitUntilOutput([&] { return !Now().Shows(text); }) ? testing::AssertionSuccess()
                                                                            : testing::AssertionFailure()
                                                                                  << "\"" << text << "\" is shown:\n"
                                                                                  << Now().Text();
    }

    TerminalSize size_;
    std::unique_ptr<Tool> daemon_;
    std::vector<Fd> workers_;
};

class TableSize : public TableTest, public testing::WithParamInterface<TerminalSize> {};

TEST_P(TableSize, FortyWorkersFitWithoutWrapping)
{
    ASSERT_NO_FATAL_FAILURE(Start(GetParam()));
    for (uint32_t pid = 1000; pid < 1040; ++pid) {
        Join(pid);
    }
    ASSERT_TRUE(Shows("40 running, 0 ended"));
    const Screen screen = Now();
    EXPECT_EQ(screen.Wraps(), 0U) << screen.Text();
    EXPECT_EQ(screen.Scrolls(), 0U) << screen.Text();
    EXPECT_EQ(screen.UnknownCode(), "");
    EXPECT_EQ(screen.rows()[0].rfind("gakppcd ", 0), 0U);
    EXPECT_NE(screen.rows()[1].find("PID"), std::string::npos);
    EXPECT_NE(screen.rows()[1].find("LAST"), std::string::npos);
    EXPECT_EQ(screen.rows().back(), ">");
    const size_t shown = CountOf(screen.Text(), " STARTED ");
    EXPECT_GE(shown, size_t{3});
    EXPECT_TRUE(shown == 40 || screen.Shows("\nand " + std::to_string(40 - shown) + " more\n")) << screen.Text();
    EXPECT_EQ(shown == 40, GetParam().rows == 60) << screen.Text();
    EXPECT_TRUE(screen.Shows("Z START_RSP 1 10")) << screen.Text();
}

INSTANTIATE_TEST_SUITE_P(Terminals, TableSize,
                         testing::Values(TerminalSize{10, 40}, TerminalSize{24, 80}, TerminalSize{60, 200}));

TEST_F(TableTest, EndedWorkersAreCountedWhereTheyDoNotFit)
{
    ASSERT_NO_FATAL_FAILURE(Start({24, 80}));
    for (uint32_t pid = 1000; pid < 1010; ++pid) {
        Join(pid).Reset();
    }
    ASSERT_TRUE(Shows("0 running, 10 ended"));
    EXPECT_EQ(CountOf(Now().Text(), " LOST "), 10U) << "there is room";
    for (uint32_t pid = 2000; pid < 2012; ++pid) {
        Join(pid, 3);
    }
    ASSERT_TRUE(Shows("12 running, 10 ended"));
    EXPECT_EQ(CountOf(Now().Text(), " STARTED "), 12U) << "running ones come first:\n" << Now().Text();
    EXPECT_TRUE(Shows("\n10 ended: 10 LOST\n"));
    for (uint32_t pid = 3000; pid < 3006; ++pid) {
        Join(pid);
    }
    EXPECT_TRUE(Shows(" more; 10 ended: 10 LOST\n"));
}

TEST_F(TableTest, FollowsTheSizeOfTheTerminal)
{
    ASSERT_NO_FATAL_FAILURE(Start({24, 80}));
    Join(4711);
    ASSERT_TRUE(Shows("PROCESS TYPE"));
    for (const TerminalSize size : {TerminalSize{10, 40}, TerminalSize{60, 200}, TerminalSize{24, 80}}) {
        const size_t before = daemon_->out().size();
        daemon_->Resize(size);
        daemon_->Kill(SIGWINCH);
        size_ = size;
        ASSERT_TRUE(
            daemon_->WaitUntilOutput([&] { return daemon_->out().find("\033[2J", before) != std::string::npos; }));
        EXPECT_TRUE(Shows(size.columns == 40 ? "DEV TYPE" : "PROCESS TYPE"));
        ASSERT_TRUE(daemon_->WaitUntilOutput([&] {
            const size_t cleared = daemon_->out().find("\033[2J", before);
            return cleared != std::string::npos && daemon_->out().find(kRestoreCursor, cleared) != std::string::npos;
        }));
        EXPECT_TRUE(Shows(size.columns == 40 ? "DEV TYPE" : "PROCESS TYPE"));
        ASSERT_TRUE(daemon_->WaitUntilOutput([&] { return Now().rows().back() == ">"; })) << Now().Text();
        EXPECT_EQ(Now().Wraps() + Now().Scrolls(), 0U) << Now().Text();
    }
}

TEST_F(TableTest, TinyTerminalGetsWhatFits)
{
    for (const TerminalSize size : {TerminalSize{1, 1}, TerminalSize{2, 3}, TerminalSize{3, 5}, TerminalSize{5, 20}}) {
        size_ = size;
        Tool daemon(kGakppcd, {"--for", "0.2", "--grace", "0"}, Tool::Output::kInteractive, {"TERM=xterm"}, size);
        EXPECT_TRUE(daemon.Finish().ExitedWith(0));
        const Screen screen(daemon.out(), size);
        EXPECT_EQ(screen.Wraps(), 0U) << screen.Text();
        EXPECT_EQ(screen.Scrolls(), 1U) << "by the newline at the end:\n" << screen.Text();
    }
}

TEST_F(TableTest, DetailOfAnEventIsCutNotItsName)
{
    ASSERT_NO_FATAL_FAILURE(Start({10, 40}));
    RawMessage message = FromWorker(3, 1, 4194304);
    message.lib_names = {{std::string(300, 'x')}};
    const Fd worker = RawConnect(kServer);
    ASSERT_TRUE(WriteAll(worker, PpcFrame(message)));
    EXPECT_TRUE(Shows("Z NOTIFY_VEXOINFO 1 4194304:...\n"));
    EXPECT_EQ(Now().Wraps(), 0U);
}

TEST_F(TableTest, HeartbeatsDriveNoEventAway)
{
    ASSERT_NO_FATAL_FAILURE(Start({24, 80}));
    const Fd& worker = Join(4711);
    for (int i = 0; i < 20; ++i) {
        Say(worker, 2, 4711);
    }
    ASSERT_TRUE(Shows("RUNNING            20"));
    EXPECT_TRUE(Now().Shows("Z START_RSP 1 4711\n")) << Now().Text();
    EXPECT_FALSE(Now().Shows("Z HEARTBEAT")) << Now().Text();
}

class WrongCommand : public TableTest, public testing::WithParamInterface<TerminalSize> {};

TEST_P(WrongCommand, ShowsTheWholeHelp)
{
    ASSERT_NO_FATAL_FAILURE(Start(GetParam()));
    for (uint32_t pid = 1000; pid < 1040; ++pid) {
        Join(pid);
    }
    for (const char* command : {"dance\n", "shutdown 1\n", "help\n"}) {
        daemon_->Write(command);
        for (const char* known :
             {"  shutdown DEVICE PID ", "  shutdown all ", "  start-custom DEVICE PID ", "  help ", "  quit "}) {
            EXPECT_TRUE(Shows(known)) << command;
        }
        EXPECT_TRUE(*command == 'h' ||
                    Shows(*command == 'd' ? "unknown command \"dance\"\n" : "a device and a process"));
        EXPECT_EQ(Now().Wraps(), 0U) << Now().Text();
        EXPECT_TRUE(Now().Shows(" PID ")) << "the header stays:\n" << Now().Text();
        daemon_->Write("\n");
        EXPECT_TRUE(ShowsNot("  quit ")) << "an empty line brings the events back";
        EXPECT_TRUE(daemon_->WaitUntilOutput([&] { return Now().rows().back() == ">"; })) << Now().Text();
    }
}

INSTANTIATE_TEST_SUITE_P(Terminals, WrongCommand, testing::Values(TerminalSize{10, 40}, TerminalSize{24, 80}));

TEST_F(TableTest, CommandsWorkAfterAnEndOfInputOnTheTerminal)
{
    ASSERT_NO_FATAL_FAILURE(Start({24, 80}));
    daemon_->Write("\x04\x04");
    daemon_->Write("help\n");
    EXPECT_TRUE(Shows("  quit "));
    EXPECT_EQ(Now().rows().back(), ">");
    daemon_->Write("quit\n");
    EXPECT_TRUE(daemon_->Finish().ExitedWith(0));
}

TEST_F(TableTest, DaemonOutlivesItsTerminalAndEndsInOrder)
{
    ASSERT_NO_FATAL_FAILURE(Start({24, 80}));
    daemon_->CloseInput();
    daemon_->CloseOutput();
    const Fd& worker = Join(1000);
    EXPECT_FALSE(WaitReadable(worker, std::chrono::milliseconds(100))) << "it is served without a terminal";
    daemon_->Kill(SIGHUP);
    EXPECT_EQ(ReadPpcFrame(worker, kLimit).value_or(RawMessage{}).type, 5U);
    EXPECT_TRUE(ExpectEof(worker, kLimit));
    EXPECT_TRUE(daemon_->Finish().ExitedWith(1)) << "the worker has not answered; " << daemon_->err();
}

// The process that listens.
pid_t ServerPid()
{
    ucred server{};
    socklen_t size = sizeof(server);
    const Fd connection = RawConnect(kServer);
    return getsockopt(connection.get(), SOL_SOCKET, SO_PEERCRED, &server, &size) == 0 ? server.pid : 0;
}

// The terminal is an interactive shell's, which starts gakppcd.
class ShellTest : public TableTest {
protected:
    void StartShell()
    {
        size_ = {24, 80};
        daemon_ = std::make_unique<Tool>(
            "setsid", std::vector<std::string>{"--ctty", "sh", "-c", "exec sh -i 2>&1"}, Tool::Output::kInteractive,
            std::vector<std::string>{"TERM=xterm", "NO_COLOR=", "PS1=shell>", "ENV="}, size_);
        ASSERT_TRUE(daemon_->WaitForOut("shell>"));
    }

    void Quit()
    {
        daemon_->Write("quit\n");
        ASSERT_TRUE(Shows("ENDED: in order"));
        daemon_->Write("exit\n");
        EXPECT_TRUE(daemon_->Finish().ended);
    }
};

TEST_F(ShellTest, BackgroundShowsNothingAndForegroundTakesCommands)
{
    ASSERT_NO_FATAL_FAILURE(StartShell());
    daemon_->Write(std::string(kGakppcd) + " &\n");
    ASSERT_TRUE(WaitUntil([] { return RawConnect(kServer).valid(); }, kLimit));
    const pid_t server = ServerPid();
    ASSERT_TRUE(daemon_->WaitUntilOutput([&] { return CountOf(daemon_->out(), "shell>") > 1; }));
    const long before = TimesAsleep(server);
    daemon_->Write("sleep 1000\n");
    daemon_->Write("what nobody reads\n");
    ASSERT_TRUE(WaitUntil([&] { return TimesAsleep(server) > before + 3; }, kLimit)) << "it spins";
    EXPECT_EQ(daemon_->out().find(kRestoreCursor), std::string::npos) << daemon_->out();
    daemon_->Write("\x03");
    ASSERT_TRUE(daemon_->WaitUntilOutput([&] { return CountOf(daemon_->out(), "shell>") > 2; }));
    daemon_->Write("fg\n");
    ASSERT_TRUE(daemon_->WaitForOut(kRestoreCursor));
    EXPECT_EQ(Now().rows().back(), ">");
    daemon_->Write("help\n");
    EXPECT_TRUE(Shows("  quit "));
    Quit();
}

TEST_F(ShellTest, TableIsDrawnAnewAfterAStop)
{
    ASSERT_NO_FATAL_FAILURE(StartShell());
    daemon_->Write(std::string(kGakppcd) + "\n");
    ASSERT_TRUE(daemon_->WaitForOut(kRestoreCursor));
    daemon_->Write("\x1a");
    ASSERT_TRUE(daemon_->WaitUntilOutput([&] { return CountOf(daemon_->out(), "shell>") > 1; }));
    const size_t stopped = daemon_->out().size();
    daemon_->Write("fg\n");
    EXPECT_TRUE(daemon_->WaitUntilOutput([&] {
        const size_t cleared = daemon_->out().find("\033[2J", stopped);
        return cleared != std::string::npos && daemon_->out().find(kRestoreCursor, cleared) != std::string::npos;
    }));
    EXPECT_EQ(Now().rows().back(), ">") << Now().Text();
    Quit();
}

TEST_F(TableTest, PromptSaysThatTheInputHasEnded)
{
    ASSERT_NO_FATAL_FAILURE(Start({24, 80}, Tool::Output::kTerminal));
    daemon_->CloseInput();
    EXPECT_TRUE(Shows("\nno commands: standard input has ended; SIGTERM ends gakppcd\n"));
    daemon_->Kill(SIGTERM);
    EXPECT_TRUE(daemon_->Finish().ExitedWith(0));
}

}  // namespace
}  // namespace gaktest
