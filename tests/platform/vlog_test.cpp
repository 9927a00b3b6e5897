#include "vlog.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <functional>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "fault.h"
#include "process.h"
#include "raw_peer.h"

namespace {

// Plays a kernel that cannot write without raising SIGPIPE.
bool kernelIsOld = false;

}  // namespace

// Replaces the C library's.
extern "C" ssize_t pwritev2(int fd, const iovec* entries, int count, off_t offset, int flags)
{
    if (kernelIsOld) {
        errno = EOPNOTSUPP;
        return -1;
    }
    return syscall(SYS_pwritev2, fd, entries, count, offset, 0, flags);
}

namespace {

using namespace std::chrono_literals;
using gaktest::ChildProcess;
using gaktest::Fd;

const char* const kNoText = nullptr;

struct ClockGettime {
    static constexpr const char* kSymbol = "clock_gettime";
    static constexpr const char* kLibrary = "libvlog.so";
    using Signature = int(clockid_t, timespec*);
};

// Points standard error elsewhere for the length of a scope.
class StandardErrorTo {
public:
    explicit StandardErrorTo(int fd) : before_(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 10)) { dup2(fd, STDERR_FILENO); }
    ~StandardErrorTo() { dup2(before_.get(), STDERR_FILENO); }
    StandardErrorTo(const StandardErrorTo&) = delete;
    StandardErrorTo& operator=(const StandardErrorTo&) = delete;

private:
    Fd before_;
};

// Each write of `body` to standard error, as a packet of its own.
std::vector<std::string> WritesOf(const std::function<void()>& body)
{
    int fds[2] = {-1, -1};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds), 0);
    Fd reader(fds[0]);
    Fd writer(fds[1]);
    {
        StandardErrorTo redirected(writer.get());
        body();
    }
    writer.Reset();
    std::vector<std::string> writes;
    std::string packet(65536, '\0');
    for (;;) {
        const ssize_t length = recv(reader.get(), packet.data(), packet.size(), 0);
        if (length <= 0) {
            return writes;
        }
        writes.push_back(packet.substr(0, static_cast<size_t>(length)));
    }
}

// The one write of `body`, or a text that no line equals.
std::string WriteOf(const std::function<void()>& body)
{
    const std::vector<std::string> writes = WritesOf(body);
    EXPECT_EQ(writes.size(), 1u);
    return writes.size() == 1 ? writes[0] : "not exactly one write";
}

// A line without its time: "LEVEL [module] text\n".
std::string WithoutTime(const std::string& line)
{
    static const std::string shape = "0000-00-00T00:00:00.000000Z ";
    std::string time = line.substr(0, shape.size());
    std::replace_if(
        time.begin(), time.end(), [](unsigned char c) { return std::isdigit(c) != 0; }, '0');
    EXPECT_EQ(time, shape) << line;
    return line.substr(std::min(line.size(), shape.size()));
}

TEST(VlogTest, InitSucceedsAgainAndAgain)
{
    EXPECT_EQ(vlog_init(), 0);
    EXPECT_EQ(vlog_init(), 0);
}

TEST(VlogTest, LevelIsWarningAtFirst)
{
    int enableEvent = 0;
    EXPECT_EQ(vlog_getlevel(38, &enableEvent), 2);
    EXPECT_EQ(enableEvent, 1);
    EXPECT_EQ(vlog_getlevel(38, nullptr), 2);
}

TEST(VlogTest, SetterTakesTheFourLevelsOnly)
{
    for (const int level : {0, 1, 2, 3}) {
        EXPECT_EQ(vlog_setlevel(level), 0);
        EXPECT_EQ(vlog_getlevel(38, nullptr), level);
    }
    for (const int level : {-1, 4, 5, 100}) {
        EXPECT_EQ(vlog_setlevel(level), -1);
        EXPECT_EQ(vlog_getlevel(38, nullptr), 3);
    }
}

TEST(VlogTest, CheckLogLevelLetsTheCurrentLevelAndAboveThrough)
{
    for (int current = 0; current <= 3; ++current) {
        ASSERT_EQ(vlog_setlevel(current), 0);
        for (int level = 0; level <= 7; ++level) {
            EXPECT_EQ(CheckLogLevel(38, level), level >= current ? 1 : 0) << level << " at " << current;
        }
    }
}

TEST(VlogTest, EachSinkWritesItsLevelModuleAndText)
{
    EXPECT_EQ(WithoutTime(WriteOf([] { VlogDebugInner(38, "a %d", 1); })), "DEBUG [38] a 1\n");
    EXPECT_EQ(WithoutTime(WriteOf([] { VlogInfoInner(38, "a %d", 2); })), "INFO [38] a 2\n");
    EXPECT_EQ(WithoutTime(WriteOf([] { VlogWarnInner(7, "a %s", "b"); })), "WARN [7] a b\n");
    EXPECT_EQ(WithoutTime(WriteOf([] { VlogErrorInner(38, "plain"); })), "ERROR [38] plain\n");
    EXPECT_EQ(WithoutTime(WriteOf([] { VlogEventInner(38, "a"); })), "EVENT [38] a\n");
}

TEST(VlogTest, LevelsOfTheGeneralSinkHaveNames)
{
    const std::pair<int, const char*> names[] = {{0, "DEBUG"},   {1, "INFO"},    {2, "WARN"},  {3, "ERROR"},
                                                 {4, "FATAL"},   {5, "EVENT"},   {6, "OPLOG"}, {7, "TRACE"},
                                                 {8, "UNKNOWN"}, {-1, "UNKNOWN"}};
    for (const auto& [level, name] : names) {
        EXPECT_EQ(WithoutTime(WriteOf([level = level] { VlogInner(38, level, "a %d", level); })),
                  std::string(name) + " [38] a " + std::to_string(level) + "\n");
    }
}

TEST(VlogTest, SinksLookAtNoLevel)
{
    ASSERT_EQ(vlog_setlevel(3), 0);
    EXPECT_EQ(WithoutTime(WriteOf([] { VlogDebugInner(38, "a"); })), "DEBUG [38] a\n");
}

TEST(VlogTest, PairsComeBeforeTheText)
{
    KeyValue pairs[] = {{"status", "running ok"}, {"k2", "v2"}};
    EXPECT_EQ(WithoutTime(WriteOf([&] { VlogWithKVInner(38, 5, pairs, 2, "a %d", 1); })),
              "EVENT [38] {status=running ok} {k2=v2} a 1\n");
    EXPECT_EQ(WithoutTime(WriteOf([&] { VlogWithKVInner(38, 5, pairs, 1, "a"); })),
              "EVENT [38] {status=running ok} a\n");
}

TEST(VlogTest, MissingPairsKeysAndValuesDoNotCrash)
{
    KeyValue empty{nullptr, nullptr};
    EXPECT_EQ(WithoutTime(WriteOf([&] { VlogWithKVInner(38, 5, &empty, 1, "a"); })), "EVENT [38] {(null)=(null)} a\n");
    EXPECT_EQ(WithoutTime(WriteOf([] { VlogWithKVInner(38, 5, nullptr, 1, "a"); })), "EVENT [38] a\n");
    EXPECT_EQ(WithoutTime(WriteOf([&] { VlogWithKVInner(38, 5, &empty, 0, "a"); })), "EVENT [38] a\n");
    EXPECT_EQ(WithoutTime(WriteOf([&] { VlogWithKVInner(38, 5, &empty, -1, "a"); })), "EVENT [38] a\n");
}

TEST(VlogTest, NullFormatDoesNotCrash)
{
    EXPECT_EQ(WithoutTime(WriteOf([] { VlogErrorInner(38, kNoText); })), "ERROR [38] (null)\n");
    EXPECT_EQ(WithoutTime(WriteOf([] { VlogInner(38, 6, kNoText); })), "OPLOG [38] (null)\n");
    EXPECT_EQ(WithoutTime(WriteOf([] { VlogWithKVInner(38, 5, nullptr, 0, kNoText); })), "EVENT [38] (null)\n");
}

TEST(VlogTest, EmptyTextLeavesALineWithoutOne)
{
    EXPECT_EQ(WithoutTime(WriteOf([] { VlogErrorInner(38, "%s", ""); })), "ERROR [38] \n");
}

TEST(VlogTest, NewlinesAtTheEndBecomeOne)
{
    EXPECT_EQ(WithoutTime(WriteOf([] { VlogErrorInner(38, "a\n\n"); })), "ERROR [38] a\n");
    EXPECT_EQ(WithoutTime(WriteOf([] { VlogErrorInner(38, "%s", "\n"); })), "ERROR [38] \n");
}

TEST(VlogTest, LongTextIsCutToOneLine)
{
    const std::string text(8191, 'x');
    EXPECT_EQ(WithoutTime(WriteOf([&] { VlogErrorInner(38, "%s", text.c_str()); })), "ERROR [38] " + text + "\n");
    const std::string tooLong(20000, 'y');
    const std::string line = WithoutTime(WriteOf([&] { VlogErrorInner(38, "%s", tooLong.c_str()); }));
    EXPECT_EQ(line.back(), '\n');
    EXPECT_LT(line.size(), 10240u);
    EXPECT_GT(line.size(), 10000u);
    EXPECT_EQ(line.find_first_not_of('y', strlen("ERROR [38] ")), line.size() - 1);
}

TEST(VlogTest, TimeIsNowInUtc)
{
    const time_t before = time(nullptr);
    const std::string line = WriteOf([] { VlogErrorInner(38, "a"); });
    const time_t after = time(nullptr);
    tm parts{};
    ASSERT_NE(strptime(line.c_str(), "%Y-%m-%dT%H:%M:%S", &parts), nullptr) << line;
    const time_t written = timegm(&parts);
    EXPECT_GE(written, before);
    EXPECT_LE(written, after);
}

TEST(VlogTest, DateIsThatOfTheCalendar)
{
    time_t now = 0;
    gaktest::CountingHook<ClockGettime> clock;
    clock.OnCall([&now](uint64_t, clockid_t, timespec* answer) {
        *answer = {now, 987654321};
        return std::optional<int>(0);
    });
    const std::pair<time_t, const char*> dates[] = {
        {0, "1970-01-01T00:00:00.987654Z "},          {951782399, "2000-02-28T23:59:59.987654Z "},
        {951782400, "2000-02-29T00:00:00.987654Z "},  {951868800, "2000-03-01T00:00:00.987654Z "},
        {1798761599, "2026-12-31T23:59:59.987654Z "}, {1798761600, "2027-01-01T00:00:00.987654Z "},
        {4107542400, "2100-03-01T00:00:00.987654Z "}};
    for (const auto& [second, text] : dates) {
        now = second;
        EXPECT_EQ(WriteOf([] { VlogErrorInner(38, "a"); }), std::string(text) + "ERROR [38] a\n");
    }
}

TEST(VlogTest, ErrnoIsKeptAndCanBeFormatted)
{
    const std::string format = "%s: %m";  // an extension, which the compiler would remark on
    const std::string line = WriteOf([&format] {
        errno = ENOENT;
        VlogErrorInner(38, format.c_str(), "open");
        EXPECT_EQ(errno, ENOENT);
    });
    EXPECT_EQ(WithoutTime(line), "ERROR [38] open: No such file or directory\n");
}

TEST(VlogTest, ErrnoIsKeptWhenNothingCanBeWritten)
{
    const Fd readOnly(open("/dev/null", O_RDONLY | O_CLOEXEC));
    StandardErrorTo redirected(readOnly.get());
    errno = ENOENT;
    VlogErrorInner(38, "lost");
    EXPECT_EQ(errno, ENOENT);
}

void BlockSigpipe()
{
    sigset_t sigpipe;
    sigemptyset(&sigpipe);
    sigaddset(&sigpipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &sigpipe, nullptr);
}

// How a line is written depends on the kernel; what happens to SIGPIPE does not.
class VlogOnAKernel : public testing::TestWithParam<bool> {
protected:
    VlogOnAKernel() { kernelIsOld = GetParam(); }
};

INSTANTIATE_TEST_SUITE_P(Vlog, VlogOnAKernel, testing::Values(false, true),
                         [](const auto& kernel) { return kernel.param ? "Old" : "Present"; });

TEST_P(VlogOnAKernel, LinesAreWrittenWhole)
{
    const std::vector<std::string> writes = WritesOf([] {
        VlogErrorInner(38, "first");
        VlogErrorInner(38, "second");
    });
    ASSERT_EQ(writes.size(), 2U);
    EXPECT_EQ(WithoutTime(writes[0]), "ERROR [38] first\n");
    EXPECT_EQ(WithoutTime(writes[1]), "ERROR [38] second\n");
}

TEST_P(VlogOnAKernel, ClosedReaderDoesNotKillTheProcessOrLeaveASignal)
{
    ChildProcess child([] {
        if (!gaktest::BreakStandardError()) {
            return 1;
        }
        signal(SIGPIPE, SIG_DFL);
        VlogErrorInner(38, "into a broken pipe");
        sigset_t mask;
        sigset_t pending;
        if (pthread_sigmask(SIG_SETMASK, nullptr, &mask) != 0 || sigpending(&pending) != 0) {
            return 2;
        }
        return sigismember(&mask, SIGPIPE) == 0 && sigismember(&pending, SIGPIPE) == 0 ? 0 : 3;
    });
    EXPECT_TRUE(child.WaitExit(10s).ExitedWith(0)) << child.WaitExit(10s);
}

TEST_P(VlogOnAKernel, ClosedReaderLeavesNoSignalOnAThreadThatBlocksIt)
{
    ChildProcess child([] {
        BlockSigpipe();
        if (!gaktest::BreakStandardError()) {
            return 1;
        }
        errno = ENOENT;
        VlogErrorInner(38, "into a broken pipe");
        sigset_t pending;
        return errno == ENOENT && sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 0 ? 0 : 2;
    });
    EXPECT_TRUE(child.WaitExit(10s).ExitedWith(0)) << child.WaitExit(10s);
}

TEST_P(VlogOnAKernel, SigpipeThatTheCallerHoldsPendingStaysPending)
{
    ChildProcess child([] {
        BlockSigpipe();
        raise(SIGPIPE);
        if (!gaktest::BreakStandardError()) {
            return 1;
        }
        VlogErrorInner(38, "into a broken pipe");
        sigset_t pending;
        sigpending(&pending);
        return sigismember(&pending, SIGPIPE) == 1 ? 0 : 2;
    });
    EXPECT_TRUE(child.WaitExit(10s).ExitedWith(0)) << child.WaitExit(10s);
}

TEST(VlogTest, LinesOfSeveralThreadsDoNotMix)
{
    constexpr int kThreads = 4;
    constexpr int kLines = 200;
    int fds[2] = {-1, -1};
    ASSERT_EQ(pipe2(fds, O_CLOEXEC), 0);
    Fd reader(fds[0]);
    Fd writer(fds[1]);
    std::string all;
    std::thread collector([&] {
        std::string part(4096, '\0');
        for (;;) {
            const ssize_t length = read(reader.get(), part.data(), part.size());
            if (length <= 0) {
                return;
            }
            all.append(part, 0, static_cast<size_t>(length));
        }
    });
    {
        StandardErrorTo redirected(writer.get());
        std::vector<std::thread> threads;
        for (int i = 0; i < kThreads; ++i) {
            threads.emplace_back([i] {
                for (int line = 0; line < kLines; ++line) {
                    VlogErrorInner(38, "%d/%d %s", i, line, std::string(1000, static_cast<char>('a' + i)).c_str());
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }
    writer.Reset();
    collector.join();

    std::set<std::string> expected;
    for (int i = 0; i < kThreads; ++i) {
        for (int line = 0; line < kLines; ++line) {
            expected.insert("ERROR [38] " + std::to_string(i) + "/" + std::to_string(line) + " " +
                            std::string(1000, static_cast<char>('a' + i)) + "\n");
        }
    }
    std::istringstream lines(all);
    std::string line;
    size_t seen = 0;
    for (; std::getline(lines, line); ++seen) {
        EXPECT_EQ(expected.erase(WithoutTime(line + "\n")), 1u) << line;
    }
    EXPECT_EQ(seen, static_cast<size_t>(kThreads * kLines));
    EXPECT_TRUE(expected.empty());
}

TEST(VlogTest, LevelMayBeSetAndReadByManyThreads)
{
    std::thread setter([] {
        for (int i = 0; i < 1000; ++i) {
            vlog_setlevel(i % 4);
        }
    });
    for (int i = 0; i < 1000; ++i) {
        const int level = vlog_getlevel(38, nullptr);
        EXPECT_TRUE(level >= 0 && level <= 3) << level;
        EXPECT_EQ(CheckLogLevel(38, 7), 1);
    }
    setter.join();
}

}  // namespace
