#include "gak_log.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "fault.h"
#include "gak_log_probe.h"
#include "log_capture.h"

namespace gaktest {
namespace {

constexpr uint32_t kWarning = 0x1012003;
constexpr uint32_t kError = 0x1013002;
constexpr int kAll = 0;
constexpr int kNone = 7;

struct CheckLevel {
    static constexpr const char* kSymbol = "CheckLogLevel";
    static constexpr const char* kLibrary = "libgak_log_probe.so";
    using Signature = int(int, int);
};

class GakLogTest : public testing::Test {
protected:
    // Counts how often it is evaluated.
    Argument Counted()
    {
        return [this] { return ++evaluated_; };
    }
    static std::function<uint32_t()> Status(uint32_t status)
    {
        return [status] { return status; };
    }

    void ExpectLine(LogSink sink, const std::string& function, const std::string& statusText)
    {
        const std::vector<LogLine> lines = log_.Lines();
        log_.Clear();
        ASSERT_EQ(lines.size(), 1U);
        const LogText text = ParseLogText(lines[0].text);
        EXPECT_EQ(lines[0].sink, sink);
        EXPECT_EQ(lines[0].moduleId, 38);
        EXPECT_EQ(text.message, "argument 1");
        EXPECT_EQ(text.file, "probe/path");
        EXPECT_GT(text.line, 0);
        EXPECT_EQ(text.function, function);
        EXPECT_EQ(text.statusText, statusText);
        EXPECT_EQ(evaluated_, 1);
        evaluated_ = 0;
    }

    LogCapture log_{"libgak_log_probe.so"};
    int evaluated_ = 0;
};

TEST_F(GakLogTest, LineNamesItsFunctionAndTheSourcePath)
{
    ProbeInfo(Counted());
    ExpectLine(LogSink::kInfo, "ProbeInfo", "running ok");
    ProbeStatus(Status(kWarning), Counted());
    ExpectLine(LogSink::kWarn, "ProbeStatus", "warnging");
    ProbeEvent(Counted());
    ExpectLine(LogSink::kEvent, "ProbeEvent", "");
}

TEST_F(GakLogTest, LineOfAHelperNamesThePublicFunction)
{
    ProbeInfoAs(Counted());
    ExpectLine(LogSink::kInfo, "Public", "running ok");
    ProbeStatusAs(Status(kError), Counted());
    ExpectLine(LogSink::kError, "Public", "internal error");
    ProbeEventAs(Counted());
    ExpectLine(LogSink::kEvent, "Public", "");
}

TEST_F(GakLogTest, EachLineMakesOneLevelCheck)
{
    for (const int minimumLevel : {kAll, kNone}) {
        log_.SetMinimumLevel(minimumLevel);
        const size_t before = log_.CheckLogLevelCalls();
        ProbeInfo(Counted());
        EXPECT_EQ(log_.CheckLogLevelCalls(), before + 1);
        ProbeStatus(Status(kWarning), Counted());
        EXPECT_EQ(log_.CheckLogLevelCalls(), before + 2);
        ProbeStatus(Status(kError), Counted());
        ProbeEvent(Counted());
        EXPECT_EQ(log_.CheckLogLevelCalls(), before + 2) << "errors and events are always written";
    }
}

TEST_F(GakLogTest, ArgumentsOfALineThatNobodySeesAreNotEvaluated)
{
    log_.SetMinimumLevel(kNone);
    ProbeInfo(Counted());
    ProbeInfoAs(Counted());
    ProbeStatus(Status(kWarning), Counted());
    ProbeStatusAs(Status(kWarning), Counted());
    EXPECT_EQ(evaluated_, 0);
    EXPECT_TRUE(log_.Lines().empty());
}

TEST_F(GakLogTest, LibrarysOwnLevelHidesAStatusLineWithoutALevelCheck)
{
    ProbeInfo(Counted());
    log_.SetLibraryLevel(3);
    qel::QELLog::GetInstance().QELRefreshLevel();
    log_.Clear();
    evaluated_ = 0;
    const size_t before = log_.CheckLogLevelCalls();
    ProbeStatus(Status(kWarning), Counted());
    EXPECT_EQ(evaluated_, 0);
    EXPECT_EQ(log_.CheckLogLevelCalls(), before);
}

TEST_F(GakLogTest, StatusIsEvaluatedOnce)
{
    int statuses = 0;
    ProbeStatus(
        [&statuses] {
            ++statuses;
            return kError;
        },
        Counted());
    EXPECT_EQ(statuses, 1);
    EXPECT_EQ(evaluated_, 1);
}

TEST_F(GakLogTest, ArgumentsOfAFailuresLineSeeTheErrnoOfTheCall)
{
    CountingHook<CheckLevel> levels;
    levels.OnCall([](uint64_t, int, int) {
        errno = EIO;
        return std::optional<int>(1);
    });
    int seen = 0;
    const Argument seeErrno = [&seen] {
        seen = errno;
        return 0;
    };
    errno = ENOENT;
    ProbeStatus(Status(kWarning), seeErrno);
    EXPECT_EQ(seen, ENOENT);
    EXPECT_EQ(errno, ENOENT);
    seen = 0;
    ProbeEvent(seeErrno);
    EXPECT_EQ(seen, ENOENT);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(levels.Count(), 1U);
}

}  // namespace
}  // namespace gaktest
