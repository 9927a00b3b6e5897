#include "log_capture.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <future>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "log_probe.h"
#include "vlog.h"

namespace gaktest {
namespace {

using namespace std::chrono_literals;

constexpr char kLibrary[] = "liblog_probe.so";

class LogCaptureTest : public testing::Test {
protected:
    LogCapture capture_{kLibrary};
};

TEST_F(LogCaptureTest, KeepsTheLinesOfEverySink)
{
    ProbeDebug("d");
    ProbeInfo("i");
    ProbeWarn("w");
    ProbeError("e");
    ProbeEvent("v");
    ProbeInner(6, "o");
    ProbeWithKv(5, "status", "S", "t");
    const std::vector<LogLine> lines = capture_.Lines();
    ASSERT_EQ(lines.size(), 7u);
    const LogSink sinks[] = {LogSink::kDebug, LogSink::kInfo,  LogSink::kWarn,  LogSink::kError,
                             LogSink::kEvent, LogSink::kInner, LogSink::kWithKv};
    const int levels[] = {0, 1, 2, 3, 5, 6, 5};
    const char* const texts[] = {"d", "i", "w", "e", "v", "o", "t"};
    for (size_t i = 0; i < lines.size(); ++i) {
        EXPECT_EQ(lines[i].sink, sinks[i]);
        EXPECT_EQ(lines[i].level, levels[i]);
        EXPECT_EQ(lines[i].text, texts[i]);
        EXPECT_EQ(lines[i].format, "%s");
        EXPECT_EQ(lines[i].moduleId, 38);
    }
    ASSERT_EQ(lines[6].pairs.size(), 1u);
    EXPECT_EQ(lines[6].pairs[0], std::make_pair(std::string("status"), std::string("S")));
    EXPECT_TRUE(lines[0].pairs.empty());
}

TEST_F(LogCaptureTest, WritesNothing)
{
    testing::internal::CaptureStderr();
    ProbeError("kept");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(LogCaptureTest, FormatsWithTheCallersErrnoAndKeepsIt)
{
    ProbeErrorWithErrno(ENOENT);
    EXPECT_EQ(errno, ENOENT);
    ASSERT_EQ(capture_.Lines().size(), 1u);
    EXPECT_EQ(capture_.Lines()[0].text, "failed 2: No such file or directory");
}

TEST_F(LogCaptureTest, KeepsTheCallingThread)
{
    int threadId = 0;
    std::thread([&threadId] {
        pthread_setname_np(pthread_self(), "log_caller");
        threadId = gettid();
        ProbeInfo("x");
    }).join();
    ASSERT_EQ(capture_.Lines().size(), 1u);
    EXPECT_EQ(capture_.Lines()[0].threadName, "log_caller");
    EXPECT_EQ(capture_.Lines()[0].threadId, threadId);
}

TEST_F(LogCaptureTest, AnswersLevelChecksAsConfigured)
{
    EXPECT_EQ(ProbeCheckLogLevel(0), 1);
    capture_.SetMinimumLevel(2);
    EXPECT_EQ(ProbeCheckLogLevel(1), 0);
    EXPECT_EQ(ProbeCheckLogLevel(2), 1);
    EXPECT_EQ(ProbeCheckLogLevel(2), 1);
    EXPECT_EQ(capture_.CheckLogLevelCalls(2), 2u);
    EXPECT_EQ(capture_.CheckLogLevelCalls(3), 0u);
    EXPECT_EQ(capture_.CheckLogLevelCalls(), 4u);
    EXPECT_EQ(ProbeGetLevel(), 0);
    capture_.SetLibraryLevel(3);
    EXPECT_EQ(ProbeGetLevel(), 3);
    EXPECT_EQ(capture_.GetLevelCalls(), 2u);
    EXPECT_EQ(ProbeInit(), 0);
    EXPECT_EQ(capture_.InitCalls(), 1u);
}

TEST_F(LogCaptureTest, CountsLinesByPartAndSink)
{
    ProbeInfo("one two");
    ProbeInfo("two three");
    ProbeError("three");
    EXPECT_EQ(capture_.Count("two"), 2u);
    EXPECT_EQ(capture_.Count(LogSink::kError, "two"), 0u);
    EXPECT_EQ(capture_.Count(LogSink::kError, "three"), 1u);
    EXPECT_TRUE(capture_.Has(LogSink::kInfo, "three"));
    EXPECT_FALSE(capture_.Has(LogSink::kWarn, "three"));
    capture_.Clear();
    EXPECT_EQ(capture_.Count(""), 0u);
}

TEST_F(LogCaptureTest, MatchesWholeMessages)
{
    ProbeInfo("[path:157]the message,[file:4:Function]12 Msg: running ok\n");
    EXPECT_TRUE(capture_.HasMessage(LogSink::kInfo, "the message"));
    EXPECT_TRUE(capture_.HasMessage(LogSink::kInfo, "the message", "running ok"));
    EXPECT_FALSE(capture_.HasMessage(LogSink::kInfo, "the message", "running"));
    EXPECT_FALSE(capture_.HasMessage(LogSink::kInfo, "message"));
    EXPECT_FALSE(capture_.HasMessage(LogSink::kError, "the message"));
}

TEST_F(LogCaptureTest, WaitForEndsWhenTheLineComes)
{
    std::promise<void> waiting;
    std::thread writer([&waiting] {
        waiting.get_future().wait();
        ProbeInfo("first");
        ProbeInfo("second");
    });
    bool asked = false;
    const Deadline deadline(30s);
    EXPECT_TRUE(capture_.WaitFor(
        [&](const std::vector<LogLine>& lines) {
            if (!std::exchange(asked, true)) {
                waiting.set_value();
            }
            return lines.size() == 2;
        },
        deadline));
    EXPECT_FALSE(deadline.Passed()) << "the line must end the wait, not the deadline";
    EXPECT_TRUE(capture_.WaitFor("second", 10s));
    writer.join();
}

TEST_F(LogCaptureTest, WaitForGivesUpAtItsDeadline)
{
    ProbeInfo("once");
    EXPECT_FALSE(capture_.WaitFor("never", 10ms));
    EXPECT_FALSE(capture_.WaitFor("once", 10ms, 2));
}

TEST(LogCaptureScopeTest, EndRestoresTheLibraryAndTheNextStartsEmpty)
{
    {
        LogCapture capture(kLibrary);
        ProbeError("kept");
        EXPECT_EQ(capture.Lines().size(), 1u);
        EXPECT_EQ(ProbeCheckLogLevel(3), 1);
        EXPECT_EQ(capture.CheckLogLevelCalls(), 1u);
    }
    testing::internal::CaptureStderr();
    ProbeError("written");
    EXPECT_NE(testing::internal::GetCapturedStderr().find("written"), std::string::npos);
    LogCapture capture(kLibrary);
    EXPECT_TRUE(capture.Lines().empty());
    EXPECT_EQ(capture.CheckLogLevelCalls(), 0u);
}

TEST(LogCaptureScopeTest, LibraryThatDoesNotLogThrows)
{
    EXPECT_THROW(LogCapture("libc.so"), std::runtime_error);
}

TEST(ParseLogTextTest, DriverLine)
{
    const LogText text = ParseLogText("[a/b/ppc:42][drvPpcSend:42] >>> send [x]: [y:1]\n\n");
    EXPECT_TRUE(text.fromDriver);
    EXPECT_EQ(text.sinkPath, "a/b/ppc");
    EXPECT_EQ(text.sinkLine, 42);
    EXPECT_EQ(text.function, "drvPpcSend");
    EXPECT_EQ(text.line, 42);
    EXPECT_EQ(text.message, "send [x]: [y:1]");
}

TEST(ParseLogTextTest, StatusLine)
{
    const LogText text = ParseLogText("[a/../log:144][TAG]  m, with [1:2:3]4,[b/c.cpp:7:Fn]99 Msg: bad, [x] text\n");
    EXPECT_FALSE(text.fromDriver);
    EXPECT_EQ(text.sinkPath, "a/../log");
    EXPECT_EQ(text.sinkLine, 144);
    EXPECT_EQ(text.message, "[TAG]  m, with [1:2:3]4");
    EXPECT_EQ(text.file, "b/c.cpp");
    EXPECT_EQ(text.line, 7);
    EXPECT_EQ(text.function, "Fn");
    EXPECT_EQ(text.threadId, 99);
    EXPECT_EQ(text.statusText, "bad, [x] text");
}

TEST(ParseLogTextTest, StatusLineWithoutStatusText)
{
    const LogText text = ParseLogText("[log:144]m,[f:7:Fn]99 Msg: \n");
    EXPECT_EQ(text.message, "m");
    EXPECT_EQ(text.statusText, "");
}

TEST(ParseLogTextTest, EventLine)
{
    const LogText text = ParseLogText("[log:148]happened,[f:7:Fn]99\n");
    EXPECT_EQ(text.message, "happened");
    EXPECT_EQ(text.function, "Fn");
    EXPECT_EQ(text.threadId, 99);
    EXPECT_EQ(text.statusText, "");
}

TEST(ParseLogTextTest, OperationLine)
{
    const LogText text = ParseLogText("[log:150][f:7:Fn]99 done, [x] it\n");
    EXPECT_EQ(text.message, "done, [x] it");
    EXPECT_EQ(text.file, "f");
    EXPECT_EQ(text.threadId, 99);
}

TEST(ParseLogTextTest, PlaceInsideAStatusTextIsNotTheLines)
{
    const LogText text = ParseLogText("[log:144]m,[f:7:Fn]99 Msg: odd,[not a place]\n");
    EXPECT_EQ(text.message, "m");
    EXPECT_EQ(text.statusText, "odd,[not a place]");
}

TEST(ParseLogTextTest, LongMessage)
{
    const std::string message(8191, 'x');
    EXPECT_EQ(ParseLogText("[log:157]" + message + ",[f:7:Fn]99 Msg: running ok\n").message, message);
}

TEST(ParseLogTextTest, OtherTextsAreAllMessage)
{
    EXPECT_EQ(ParseLogText("free text\n").message, "free text");
    EXPECT_EQ(ParseLogText("[log:150]no place here\n").message, "no place here");
    EXPECT_EQ(ParseLogText("").message, "");
}

}  // namespace
}  // namespace gaktest
