// One whole conversation, daemon and worker as processes, in each of many environments. It works, or it fails with the
// described status and a line that names the cause; it never hangs, crashes, misdelivers or leaks a descriptor.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <regex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "process.h"
#include "raw_peer.h"

namespace gaktest {
namespace {

using testing::AnyOf;
using testing::HasSubstr;
using testing::StartsWith;

constexpr auto kWait = std::chrono::seconds(30);
constexpr int kReportFd = 100;
constexpr int kControlFd = 101;

enum Role { kDaemon, kWorker };
enum class Expected { kWorks, kWorksOrSaysWhy, kSaysWhy };

struct Environment {
    const char* name;
    std::function<void(Role)> prepare;  // in the child, before the program is executed
    std::vector<std::string> daemonOptions;
    std::vector<std::string> workerOptions;
    Expected expected = Expected::kWorks;
};

void PrintTo(const Environment& environment, std::ostream* out)
{
    *out << environment.name;
}

void Check(bool holds, const char* what)
{
    if (!holds) {
        throw std::runtime_error(std::string(what) + ": " + strerror(errno));
    }
}

std::string ContentOf(const Fd& file)
{
    std::string text;
    std::array<char, 4096> part{};
    for (off_t at = 0;;) {
        const ssize_t got = pread(file.get(), part.data(), part.size(), at);
        if (got <= 0) {
            return text;
        }
        text.append(part.data(), static_cast<size_t>(got));
        at += got;
    }
}

// Refuses the `which`-th (from 0) call that a process makes, and lets all others pass.
struct Refusal {
    std::string call;
    int which;
    int error;
};

class Refuser {
public:
    // Takes the descriptor that decides from the process, and lets it go on.
    Refuser(const Fd& control, Refusal refusal)
        : refusal_(std::move(refusal)), notifications_(ReceiveDescriptor(control)), thread_([this] { Serve(); })
    {
        Check(notifications_.valid() && write(control.get(), "", 1) == 1, "the descriptor that decides");
    }
    ~Refuser() { thread_.join(); }
    Refuser(const Refuser&) = delete;
    Refuser& operator=(const Refuser&) = delete;

private:
    static int ReceiveDescriptor(const Fd& control)
    {
        char byte = 0;
        iovec data = {&byte, 1};
        alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> buffer{};
        msghdr message = {};
        message.msg_iov = &data;
        message.msg_iovlen = 1;
        message.msg_control = buffer.data();
        message.msg_controllen = buffer.size();
        int fd = -1;
        if (recvmsg(control.get(), &message, MSG_CMSG_CLOEXEC) == 1 && CMSG_FIRSTHDR(&message) != nullptr) {
            memcpy(&fd, CMSG_DATA(CMSG_FIRSTHDR(&message)), sizeof(fd));
        }
        return fd;
    }

    // Until the process has ended.
    void Serve() const
    {
        pollfd waiting = {notifications_.get(), POLLIN, 0};
        for (int call = 0; poll(&waiting, 1, -1) == 1 && (waiting.revents & POLLIN) != 0; ++call) {
            seccomp_notif request = {};
            if (ioctl(notifications_.get(), SECCOMP_IOCTL_NOTIF_RECV, &request) != 0) {
                continue;  // the call was interrupted before it could be looked at
            }
            seccomp_notif_resp answer = {};
            answer.id = request.id;
            answer.error = call == refusal_.which ? -refusal_.error : 0;
            answer.flags = call == refusal_.which ? 0 : SECCOMP_USER_NOTIF_FLAG_CONTINUE;
            ioctl(notifications_.get(), SECCOMP_IOCTL_NOTIF_SEND, &answer);
        }
    }

    const Refusal refusal_;
    const Fd notifications_;
    std::thread thread_;
};

// A daemon or worker that runs.
class Program {
public:
    Program(Role role, const Environment& environment)
    {
        std::array<int, 2> report{};
        std::array<int, 2> control{};
        Check(pipe2(report.data(), O_CLOEXEC) == 0 &&
                  socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, control.data()) == 0,
              "pipes");
        report_.Reset(report[0]);
        control_.Reset(control[0]);
        log_.Reset(memfd_create("log", MFD_CLOEXEC));
        const Fd theirReport(report[1]);
        const Fd theirControl(control[1]);
        process_ = std::make_unique<ChildProcess>([&] {
            Check(dup2(log_.get(), STDERR_FILENO) == STDERR_FILENO && dup2(theirReport.get(), kReportFd) == kReportFd &&
                      dup2(theirControl.get(), kControlFd) == kControlFd,
                  "dup2");
            if (environment.prepare) {
                environment.prepare(role);
            }
            Execute(role, role == kDaemon ? environment.daemonOptions : environment.workerOptions);
            return 127;
        });
    }

    ExitStatus WaitExit() { return process_->WaitExit(kWait); }
    void Signal(int signal) { process_->Kill(signal); }
    void EndInput() { control_.Reset(); }
    const Fd& Control() const { return control_; }
    bool HasReported() const { return WaitReadable(report_, std::chrono::seconds(0)); }
    std::string Log() const { return ContentOf(log_); }

    // The next line that it reports; empty when there is none in time.
    std::string Listen()
    {
        std::string line;
        const Deadline deadline(kWait);
        char byte = 0;
        while (WaitReadable(report_, deadline) && read(report_.get(), &byte, 1) == 1) {
            if (byte == '\n') {
                return line;
            }
            line += byte;
        }
        return "";
    }

private:
    static void Execute(Role role, const std::vector<std::string>& options)
    {
        std::vector<std::string> words = {GAKPPC_ENVIRONMENT_PROGRAM, role == kDaemon ? "daemon" : "worker",
                                          std::to_string(kReportFd), std::to_string(kControlFd)};
        words.insert(words.end(), options.begin(), options.end());
        std::vector<char*> arguments;
        for (std::string& word : words) {
            arguments.push_back(word.data());
        }
        arguments.push_back(nullptr);
        execv(arguments[0], arguments.data());
    }

    Fd report_;
    Fd control_;
    Fd log_;
    std::unique_ptr<ChildProcess> process_;
};

struct Outcome {
    ExitStatus daemon;
    ExitStatus worker;
    std::string created;
    std::string sent;
    std::string received;
    std::string log;  // of both
};

std::ostream& operator<<(std::ostream& out, const Outcome& outcome)
{
    return out << "daemon " << outcome.daemon << ": " << outcome.created << ", " << outcome.received << "\nworker "
               << outcome.worker << ": " << outcome.sent << "\n"
               << outcome.log;
}

constexpr char kCreated[] = "created 0 1011000";
constexpr char kSent[] = "sent 0 0 0 0 0 waited 0 descriptors 0";
constexpr char kReceived[] = "received 1 3 1 1 1 0 order 1011000 destroyed 1011000 descriptors 0";

std::string ListenFor(Program& program, const std::string& head)
{
    std::string line = program.Listen();
    while (!line.empty() && line.compare(0, head.size(), head) != 0) {
        line = program.Listen();
    }
    return line;
}

// Whether the daemon has said that it cannot take the worker in, who would then wait for as long as the daemon lives.
bool CannotAccept(const std::string& log)
{
    return log.find("accept ppc socket error") != std::string::npos ||
           log.find("session closed") != std::string::npos || log.find("malloc failed") != std::string::npos;
}

Outcome Converse(const Environment& environment, const Refusal* ofDaemon = nullptr, const Refusal* ofWorker = nullptr,
                 const std::function<void(Program& daemon, Program& worker)>& meanwhile = nullptr)
{
    Outcome outcome;
    std::unique_ptr<Refuser> daemonRefuser;
    std::unique_ptr<Refuser> workerRefuser;
    Program daemon(kDaemon, environment);
    if (ofDaemon != nullptr) {
        daemonRefuser = std::make_unique<Refuser>(daemon.Control(), *ofDaemon);
    }
    outcome.created = daemon.Listen();
    Program worker(kWorker, environment);
    if (ofWorker != nullptr) {
        workerRefuser = std::make_unique<Refuser>(worker.Control(), *ofWorker);
    }
    if (meanwhile) {
        meanwhile(daemon, worker);
    }
    WaitUntil([&] { return worker.HasReported() || CannotAccept(daemon.Log()); }, kWait);
    const bool endsEarly = !worker.HasReported();
    if (endsEarly) {
        daemon.EndInput();
    }
    outcome.sent = ListenFor(worker, "sent");
    outcome.worker = worker.WaitExit();
    if (outcome.sent == kSent && !endsEarly) {
        ListenFor(daemon, "closed");
    }
    daemon.EndInput();
    outcome.received = ListenFor(daemon, "received");
    outcome.daemon = daemon.WaitExit();
    outcome.log = daemon.Log() + worker.Log();
    return outcome;
}

bool Works(const Outcome& outcome)
{
    return outcome.created == kCreated && outcome.sent == kSent && outcome.received == kReceived;
}

// The numbers of a report that are not those of a conversation that works.
void ExpectDescribedFailure(const Outcome& outcome)
{
    EXPECT_THAT(outcome.log, AnyOf(HasSubstr(" ERROR "), HasSubstr(" WARN "))) << "no line names a cause";
    EXPECT_THAT(outcome.created, testing::MatchesRegex("created (0|-1) (1011000|1093030|1093031)"));
    EXPECT_THAT(
        outcome.sent,
        testing::MatchesRegex(
            "sent (0|-1) (0|1093031) (0|1093031) (0|1093031) (0|1093031) waited (0|1093031|ffffffff) descriptors 0"));
    EXPECT_THAT(
        outcome.received,
        testing::MatchesRegex("received [01] [0-3] [01] [01] [01] 0 order [0-9a-f]+ destroyed 1011000 descriptors 0"));
}

void Judge(const Outcome& outcome, Expected expected)
{
    SCOPED_TRACE(testing::PrintToString(outcome));
    EXPECT_TRUE(outcome.daemon.ExitedWith(0));
    EXPECT_TRUE(outcome.worker.ExitedWith(0));
    if (expected == Expected::kWorks) {
        EXPECT_EQ(outcome.created, kCreated);
        EXPECT_EQ(outcome.sent, kSent);
        EXPECT_EQ(outcome.received, kReceived);
        return;
    }
    EXPECT_FALSE(expected == Expected::kSaysWhy && Works(outcome));
    if (!Works(outcome)) {
        ExpectDescribedFailure(outcome);
    }
}

void CloseStandardDescriptors(unsigned which)
{
    for (int fd = 0; fd < 3; ++fd) {
        if ((which & (1U << static_cast<unsigned>(fd))) != 0) {
            close(fd);
        }
    }
}

void BlockSigpipe(bool andRaise)
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGPIPE);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    if (andRaise) {
        raise(SIGPIPE);
    }
}

void LimitStack()
{
    const rlimit limit = {64UL * 1024, 64UL * 1024};
    Check(setrlimit(RLIMIT_STACK, &limit) == 0, "setrlimit");
}

void HideProc()
{
    Check(unshare(CLONE_NEWNS) == 0 && mount("none", "/proc", "tmpfs", 0, nullptr) == 0, "mount");
}

void LogTo(const char* file)
{
    const Fd opened(open(file, O_WRONLY | O_CLOEXEC));
    Check(opened.valid() && dup2(opened.get(), STDERR_FILENO) == STDERR_FILENO, file);
}

void ForgetEnvironment()
{
    clearenv();
}

void SetLocale()
{
    setenv("LC_ALL", "tr_TR.UTF-8", 1);
    setenv("LANGUAGE", "xx", 1);
    setenv("MALLOC_PERTURB_", "165", 1);
}

void LoadLog(const std::string& mode)
{
    setenv("LD_PRELOAD", GAKPPC_HOSTILE_LOG, 1);
    setenv("HOSTILE_LOG", mode.c_str(), 1);
}

void LimitFiles(rlim_t bytes)
{
    const rlimit limit = {bytes, bytes};
    Check(setrlimit(RLIMIT_FSIZE, &limit) == 0, "setrlimit");
}

// Only a daemon that ignores the signal of the limit outlives what its own log writes.
void LimitFilesAtTheLog(rlim_t bytes)
{
    signal(SIGXFSZ, SIG_IGN);
    LimitFiles(bytes);
}

void MakeFolder(const char* path)
{
    std::filesystem::create_directories(path);
}

const Environment kUnusual[] = {
    {"SigpipeAsItIsByDefault", nullptr, {"send=gone"}, {"send=gone"}},
    {"SigpipeIgnored", [](Role) { signal(SIGPIPE, SIG_IGN); }, {"send=gone"}, {"send=gone"}},
    {"SigpipeHandled", nullptr, {"sigpipe=handled", "send=gone"}, {"sigpipe=handled", "send=gone"}},
    {"SigpipeBlocked", [](Role) { BlockSigpipe(false); }, {"send=gone"}, {"send=gone"}},
    {"SigpipePending", [](Role) { BlockSigpipe(true); }, {"send=gone"}, {"send=gone"}},
    {"ThreadStacksOf64KiB", [](Role) { LimitStack(); }, {}, {}},
    {"NoProc", [](Role) { HideProc(); }, {}, {}},
    {"LogDiskFull", [](Role) { LogTo("/dev/full"); }, {}, {}},
    {"NoEnvironmentVariables", [](Role) { ForgetEnvironment(); }, {}, {}},
    {"UnknownLocale", [](Role) { SetLocale(); }, {}, {}},
    {"UmaskThatTakesAll", [](Role) { umask(0777); }, {}, {}},
    {"AnotherRoot", [](Role) { MakeFolder("/home/root/home/KrovaUser"); }, {"root=/home/root"}, {"root=/home/root"}},
    {"AnotherRootWithoutTheFolder",
     [](Role) { MakeFolder("/home/empty"); },
     {"root=/home/empty"},
     {"root=/home/empty"},
     Expected::kSaysWhy},
    {"NoFileMayGrow", [](Role) { LogTo("/dev/null"), LimitFiles(0); }, {}, {}},
    {"LogChangesErrno", [](Role) { LoadLog("errno"); }, {}, {}},
    {"LogIsSlow", [](Role) { LoadLog("slow"); }, {}, {}},
    {"LogCallsBack", [](Role) { LoadLog("calls-back"); }, {}, {}},
    {"LogBlocksEachThreadForAWhile", [](Role) { LoadLog("blocks"); }, {}, {}},
};

class UnusualEnvironmentTest : public testing::TestWithParam<Environment> {};

TEST_P(UnusualEnvironmentTest, CarriesAWholeConversation)
{
    Judge(Converse(GetParam()), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(Each, UnusualEnvironmentTest, testing::ValuesIn(kUnusual),
                         [](const auto& test) { return std::string(test.param.name); });

TEST(StandardDescriptorsTest, AreClosedInAllEightWays)
{
    for (unsigned which = 0; which < 8; ++which) {
        SCOPED_TRACE(which);
        Judge(Converse({"", [which](Role) { CloseStandardDescriptors(which); }, {}, {}}), Expected::kWorks);
    }
}

TEST(LimitTest, OfDescriptorsIsReportedAtItsEdge)
{
    for (int left = 0; left <= 4; ++left) {
        SCOPED_TRACE(left);
        const std::vector<std::string> limit = {"files=" + std::to_string(left)};
        Judge(Converse({"", nullptr, limit, {}}), Expected::kWorksOrSaysWhy);
        Judge(Converse({"", nullptr, {}, limit}), Expected::kWorksOrSaysWhy);
    }
}

TEST(LimitTest, OfMemoryIsReportedAtItsEdge)
{
    for (const int left : {0, 64, 256, 1024, 4096, 8000, 8300, 9000, 17000, 70000, 140000, 300000}) {
        SCOPED_TRACE(left);
        const std::vector<std::string> limit = {"memory=" + std::to_string(left)};
        Judge(Converse({"", nullptr, limit, {}}), Expected::kWorksOrSaysWhy);
        Judge(Converse({"", nullptr, {}, limit}), Expected::kWorksOrSaysWhy);
    }
}

// A user of its own, so that no other process counts.
TEST(LimitTest, OfThreadsIsReportedAtItsEdge)
{
    constexpr uid_t kUser = 54321;
    if (chown("/home/KrovaUser", kUser, kUser) != 0) {
        GTEST_SKIP() << "only root can count the threads of a user who has none yet";
    }
    const std::string user = "user=" + std::to_string(kUser);
    Judge(Converse({"", nullptr, {user}, {user}}), Expected::kWorks);
    for (int left = 0; left <= 4; ++left) {
        SCOPED_TRACE(left);
        const std::string limit = "threads=" + std::to_string(left);
        Judge(Converse({"", nullptr, {user, limit}, {user}}), Expected::kWorksOrSaysWhy);
        Judge(Converse({"", nullptr, {user}, {user, limit}}), Expected::kWorksOrSaysWhy);
    }
}

// Nothing but the log itself writes to a file.
TEST(LimitTest, OfFileSizesCutsTheLogAndNothingElse)
{
    for (const rlim_t bytes : {0, 1, 50, 100, 150, 200, 500, 1000}) {
        SCOPED_TRACE(bytes);
        const Outcome outcome = Converse({"", [bytes](Role) { LimitFilesAtTheLog(bytes); }, {}, {}});
        Judge(outcome, Expected::kWorks);
        EXPECT_LE(outcome.log.size(), 2 * bytes);
    }
}

// Whatever a thread holds while it logs, others need not wait for. A descriptor stays open while its call is stuck.
TEST(StuckLogTest, HoldsUpOnlyTheThreadThatLogs)
{
    constexpr int kMoreThanAnyThreadLogs = 20;
    for (int line = 1; line <= kMoreThanAnyThreadLogs; ++line) {
        for (const Role role : {kDaemon, kWorker}) {
            SCOPED_TRACE("line " + std::to_string(line) + " of a thread of the " +
                         (role == kDaemon ? "daemon" : "worker"));
            const auto load = [line](Role) { LoadLog(std::to_string(line)); };
            const std::vector<std::string> stuck = {"stuck=call"};
            const std::vector<std::string> none;
            Outcome outcome = Converse({"", load, role == kDaemon ? stuck : none, role == kWorker ? stuck : none});
            outcome.sent = std::regex_replace(outcome.sent, std::regex("descriptors 1$"), "descriptors 0");
            Judge(outcome, Expected::kWorks);
        }
    }
}

TEST(StopTest, ForASecondLosesNothing)
{
    for (const Role stopped : {kDaemon, kWorker}) {
        SCOPED_TRACE(stopped);
        Judge(Converse({"", nullptr, {}, {}}, nullptr, nullptr,
                       [stopped](Program& daemon, Program& worker) {
                           Program& program = stopped == kDaemon ? daemon : worker;
                           program.Signal(SIGSTOP);
                           poll(nullptr, 0, 1000);
                           program.Signal(SIGCONT);
                       }),
              Expected::kWorks);
    }
}

class RefusedCallTest : public testing::TestWithParam<const char*> {};

TEST_P(RefusedCallTest, IsReportedAndNothingElseHappens)
{
    const std::vector<std::string> option = {std::string("refuse=") + GetParam()};
    for (const int error : {EPERM, ENOSYS}) {
        for (int which = 0; which < 4; ++which) {
            SCOPED_TRACE(std::string(strerrorname_np(error)) + " for call " + std::to_string(which));
            const Refusal refusal = {GetParam(), which, error};
            Judge(Converse({"", nullptr, option, {}}, &refusal), Expected::kWorksOrSaysWhy);
            Judge(Converse({"", nullptr, {}, option}, nullptr, &refusal), Expected::kWorksOrSaysWhy);
        }
    }
}

// Not "close" (a descriptor whose closing is refused stays open, and closing is never repeated), not "shutdown"
// (nothing else wakes a thread that waits) and not "getpid" (it cannot fail: callers depend on that).
INSTANTIATE_TEST_SUITE_P(Each, RefusedCallTest,
                         testing::Values("socket", "fcntl", "bind", "listen", "accept", "connect", "recvfrom", "writev",
                                         "unlink", "access", "mkdir", "poll", "prctl", "rt_sigprocmask",
                                         "rt_sigtimedwait", "gettid", "clone3", "mmap", "mprotect", "pwritev2", "brk"),
                         [](const auto& test) { return std::string(test.param); });

}  // namespace
}  // namespace gaktest
