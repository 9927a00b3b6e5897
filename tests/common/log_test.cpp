#include "log.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "fault.h"
#include "import_hook.h"
#include "log_capture.h"
#include "osal.h"
#include "process.h"
#include "status_factory.h"
#include "status_texts.h"

namespace {

using namespace std::chrono_literals;
using gaktest::ChildProcess;
using gaktest::CountingHook;
using gaktest::ImportHook;
using gaktest::LogCapture;
using gaktest::LogLine;
using gaktest::LogSink;
using qel::QELLog;
namespace calls = gaktest::calls;

constexpr int kModule = 38;
constexpr char kPath[] = "qel/device/src/gak/ppc_client";
constexpr uint32_t kDebugStatus = 0x1010001;
constexpr uint32_t kInfoStatus = 0x1011004;
constexpr uint32_t kWarnStatus = 0x1012003;
constexpr uint32_t kErrorStatus = 0x1013002;
constexpr uint32_t kFatalStatus = 0x1014000;
constexpr uint32_t kRunningOk = 0x1011000;
constexpr uint32_t kForeign = 0x2013001;

struct CheckLevel : calls::OfGakppc {
    static constexpr const char* kSymbol = "CheckLogLevel";
    using Signature = int(int, int);
};
struct GetLevel : calls::OfGakppc {
    static constexpr const char* kSymbol = "vlog_getlevel";
    using Signature = int(int, int*);
};
struct InitSink : calls::OfGakppc {
    static constexpr const char* kSymbol = "vlog_init";
    using Signature = int();
};
struct GetTid : calls::OfGakppc {
    static constexpr const char* kSymbol = "osalGetTid";
    using Signature = int();
};
struct FormatMessage : calls::OfGakppc {
    static constexpr const char* kSymbol = "vsnprintf_s";
    using Signature = int(char*, size_t, size_t, const char*, va_list);
};
// The memory of strings is taken inside the C++ library.
struct NewOfStrings {
    static constexpr const char* kSymbol = "_Znwm";
    static constexpr const char* kLibrary = "libstdc++.so.6";
    using Signature = void*(size_t);
};

// The five entry points, each called with one message, from line 44.
using LogFn = std::function<void(const char* function, const char* file, const char* message)>;

struct EntryPoint {
    const char* name;
    LogFn log;
    LogSink sink;
    std::vector<int> asked;  // the levels that the sink is asked about
};

LogFn LogWithStatus(uint32_t status)
{
    return
        [status](auto function, auto file, auto message) { QEL_LOG_IMPL(function, file, 44, status, "%s", message); };
}

const std::vector<EntryPoint>& EntryPoints()
{
    static const LogFn plain = [](auto function, auto file, auto message) {
        QEL_LOG_IMPL(function, file, 44, "%s", message);
    };
    static const LogFn event = [](auto function, auto file, auto message) {
        QEL_EVENT_LOG_IMPL(function, file, 44, "%s", message);
    };
    static const LogFn trace = [](auto function, auto file, auto message) {
        QEL_TRACE_LOG_IMPL(function, file, 44, "begun", "%s", message);
    };
    static const LogFn operation = [](auto function, auto file, auto message) {
        QEL_OPLOG_IMPL(function, file, 44, "%s", message);
    };
    static const std::vector<EntryPoint> entryPoints = {
        {"plain", plain, LogSink::kInfo, {1}},
        {"debug status", LogWithStatus(kDebugStatus), LogSink::kDebug, {0}},
        {"warn status", LogWithStatus(kWarnStatus), LogSink::kWarn, {2}},
        {"error status", LogWithStatus(kErrorStatus), LogSink::kError, {}},
        {"fatal status", LogWithStatus(kFatalStatus), LogSink::kInfo, {1}},
        {"event", event, LogSink::kEvent, {}},
        {"trace", trace, LogSink::kWithKv, {5}},
        {"operation", operation, LogSink::kInner, {}},
    };
    return entryPoints;
}

// The one line that was written since the last time, or an empty one.
LogLine TakeLine(LogCapture& capture)
{
    const std::vector<LogLine> lines = capture.Lines();
    capture.Clear();
    EXPECT_EQ(lines.size(), 1U);
    return lines.size() == 1 ? lines[0] : LogLine{LogSink::kDebug, 0, 0, "", "", {}, 0, ""};
}

std::string Tid()
{
    return std::to_string(osalGetTid());
}

std::string SinkPrefix(int sinkLine)
{
    return "[qel/device/../common/src/log:" + std::to_string(sinkLine) + "]";
}

void ExpectLine(const LogLine& line, LogSink sink, int level, const std::string& text)
{
    EXPECT_EQ(line.sink, sink);
    EXPECT_EQ(line.moduleId, kModule);
    EXPECT_EQ(line.level, level);
    EXPECT_EQ(line.format, "[%s:%d]%s");
    EXPECT_EQ(line.text, text);
}

// ---- Lines of the entry points ---------------------------------------------------------------------------------

TEST(LogLine, PlainLineIsInfoAndEndsInRunningOk)
{
    LogCapture capture;
    QEL_LOG_IMPL("Destroy", kPath, 44, "[GAKPPCCLI]  Destroy() enter");
    ExpectLine(TakeLine(capture), LogSink::kInfo, 1,
               SinkPrefix(157) + "[GAKPPCCLI]  Destroy() enter,[qel/device/src/gak/ppc_client:44:Destroy]" + Tid() +
                   " Msg: running ok\n");
}

TEST(LogLine, StatusLineHasTheSinkOfItsLevelAndEndsInItsText)
{
    LogCapture capture;
    const struct {
        uint32_t status;
        LogSink sink;
        int level;
        int sinkLine;
        const char* text;
    } rows[] = {
        {kDebugStatus, LogSink::kDebug, 0, 146, "debug info"},
        {kInfoStatus, LogSink::kInfo, 1, 157, "stopped"},
        {kWarnStatus, LogSink::kWarn, 2, 142, "warnging"},
        {kErrorStatus, LogSink::kError, 3, 144, "internal error"},
    };
    for (const auto& row : rows) {
        QEL_LOG_IMPL("Fn", kPath, 7, row.status, "code %d of %s", 5, "five");
        ExpectLine(TakeLine(capture), row.sink, row.level,
                   SinkPrefix(row.sinkLine) + "code 5 of five,[qel/device/src/gak/ppc_client:7:Fn]" + Tid() +
                       " Msg: " + row.text + "\n");
    }
}

TEST(LogLine, EventLineHasNoStatusText)
{
    LogCapture capture;
    QEL_EVENT_LOG_IMPL("Fn", kPath, 7, "started %u", 3U);
    ExpectLine(TakeLine(capture), LogSink::kEvent, 5,
               SinkPrefix(148) + "started 3,[qel/device/src/gak/ppc_client:7:Fn]" + Tid() + "\n");
}

TEST(LogLine, OperationLinePutsTheMessageLast)
{
    LogCapture capture;
    QEL_OPLOG_IMPL("Fn", kPath, 7, "user %s", "root");
    ExpectLine(TakeLine(capture), LogSink::kInner, 6,
               SinkPrefix(150) + "[qel/device/src/gak/ppc_client:7:Fn]" + Tid() + " user root\n");
}

TEST(LogLine, TraceLineCarriesItsStatusTextAsAPair)
{
    LogCapture capture;
    QEL_TRACE_LOG_IMPL("Fn", kPath, 7, "begun", "job %d", 9);
    const LogLine line = TakeLine(capture);
    ExpectLine(line, LogSink::kWithKv, 5,
               SinkPrefix(155) + "job 9,[qel/device/src/gak/ppc_client:7:Fn]" + Tid() + "\n");
    EXPECT_EQ(line.pairs, (std::vector<std::pair<std::string, std::string>>{{"status", "begun"}}));
}

TEST(LogLine, FatalStatusGoesThroughTheInfoSink)
{
    LogCapture capture;
    qel::StatusFactory::GetInstance().RegisterErrorNo(kFatalStatus, "all is lost");
    QEL_LOG_IMPL("Fn", kPath, 7, kFatalStatus, "x");
    ExpectLine(TakeLine(capture), LogSink::kInfo, 1,
               SinkPrefix(157) + "x,[qel/device/src/gak/ppc_client:7:Fn]" + Tid() + " Msg: all is lost\n");
}

TEST(LogLine, UnregisteredStatusPrintsMsgWithNothingBehindIt)
{
    LogCapture capture;
    QEL_LOG_IMPL("Fn", kPath, 7, 0x1013000U, "x");
    ExpectLine(TakeLine(capture), LogSink::kError, 3,
               SinkPrefix(144) + "x,[qel/device/src/gak/ppc_client:7:Fn]" + Tid() + " Msg: \n");
}

TEST(LogLine, EveryRegisteredStatusHasItsTextAndTheSinkOfItsLevel)
{
    const LogSink sinks[] = {LogSink::kDebug, LogSink::kInfo, LogSink::kWarn, LogSink::kError};
    LogCapture capture;
    for (const StatusTextRow& row : kStatusTexts) {
        QEL_LOG_IMPL("Fn", kPath, 7, row.status, "x");
        const LogLine line = TakeLine(capture);
        EXPECT_EQ(line.sink, sinks[row.level]) << std::hex << row.status;
        EXPECT_EQ(line.StatusText(), row.text) << std::hex << row.status;
    }
}

TEST(LogLine, ThreadIdIsPrintedAsASignedDecimal)
{
    LogCapture capture;
    CountingHook<GetTid> tids;
    tids.OnCall([](uint64_t) { return -7; });
    for (const EntryPoint& entry : EntryPoints()) {
        entry.log("Fn", kPath, "x");
        EXPECT_NE(TakeLine(capture).text.find(":44:Fn]-7"), std::string::npos) << entry.name;
    }
}

TEST(LogLine, LineNumberIsPrintedAsASignedDecimal)
{
    LogCapture capture;
    QEL_EVENT_LOG_IMPL("Fn", kPath, -3, "x");
    EXPECT_NE(TakeLine(capture).text.find(":-3:Fn]"), std::string::npos);
}

TEST(LogLine, MessageIsNeverUsedAsAFormat)
{
    LogCapture capture;
    for (const EntryPoint& entry : EntryPoints()) {
        entry.log("Fn", kPath, "100%s %n");
        EXPECT_EQ(TakeLine(capture).Message(), "100%s %n") << entry.name;
    }
}

// ---- Lines that are dropped --------------------------------------------------------------------------------------

TEST(LogDrop, NullFunctionOrFileNameWritesNothing)
{
    LogCapture capture;
    for (const EntryPoint& entry : EntryPoints()) {
        entry.log(nullptr, kPath, "x");
        entry.log("Fn", nullptr, "x");
        EXPECT_EQ(capture.Lines().size(), 0U) << entry.name;
    }
    EXPECT_EQ(capture.CheckLogLevelCalls(), 0U);
}

TEST(LogDrop, MessageLongerThan8191CharactersIsDroppedEntirely)
{
    LogCapture capture;
    for (const size_t length : {8192U, 8193U, 100000U}) {
        const std::string message(length, 'm');
        for (const EntryPoint& entry : EntryPoints()) {
            entry.log("Fn", kPath, message.c_str());
            EXPECT_EQ(capture.Lines().size(), 0U) << entry.name << ' ' << length;
        }
    }
}

// The line buffer ends a line of 8191 characters; the sink's own prefix does not count.
TEST(LogDrop, LongestLineIsWrittenWholeAndOneCharacterMoreDropsIt)
{
    LogCapture capture;
    for (const EntryPoint& entry : EntryPoints()) {
        entry.log("Fn", kPath, "");
        const std::string frame = TakeLine(capture).text;
        const size_t room = 8191 - (frame.size() - SinkPrefix(142).size());

        entry.log("Fn", kPath, std::string(room, 'm').c_str());
        EXPECT_EQ(TakeLine(capture).Message(), std::string(room, 'm')) << entry.name;
        entry.log("Fn", kPath, std::string(room + 1, 'm').c_str());
        EXPECT_EQ(capture.Lines().size(), 0U) << entry.name;
    }
}

int FailToFormatLine(char* /*dest*/, size_t /*destMax*/, const char* /*fmt*/, ...)
{
    return -1;
}

TEST(LogDrop, FormatterFailureDropsTheLine)
{
    LogCapture capture;
    const auto logAll = [] {
        for (const EntryPoint& entry : EntryPoints()) {
            entry.log("Fn", kPath, "x");
        }
    };
    {
        CountingHook<FormatMessage> formats;
        formats.FailFrom(1, -1, 0);
        logAll();
        EXPECT_EQ(formats.Count(), EntryPoints().size());
    }
    {
        const ImportHook hook("sprintf_s", reinterpret_cast<void*>(&FailToFormatLine));
        logAll();
    }
    EXPECT_EQ(capture.Lines().size(), 0U);
    logAll();
    EXPECT_EQ(capture.Lines().size(), EntryPoints().size());
}

TEST(LogDrop, MessageIsFormattedWithALimitOf8191Characters)
{
    LogCapture capture;
    CountingHook<FormatMessage> formats;
    formats.OnCall([](uint64_t, char*, size_t destMax, size_t count, const char* fmt, va_list) -> std::optional<int> {
        EXPECT_EQ(destMax, 8192U);
        EXPECT_EQ(count, 8191U);
        EXPECT_STREQ(fmt, "%s");
        return std::nullopt;
    });
    for (const EntryPoint& entry : EntryPoints()) {
        entry.log("Fn", kPath, "x");
    }
    EXPECT_EQ(formats.Count(), EntryPoints().size());
}

// ---- Levels ------------------------------------------------------------------------------------------------------

TEST(LogLevel, LevelIsCheckedOncePerLineForModule38)
{
    LogCapture capture;
    CountingHook<CheckLevel> questions;
    for (const EntryPoint& entry : EntryPoints()) {
        std::vector<int> asked;
        questions.OnCall([&](uint64_t, int moduleId, int level) -> std::optional<int> {
            EXPECT_EQ(moduleId, kModule);
            asked.push_back(level);
            return 1;
        });
        entry.log("Fn", kPath, "x");
        EXPECT_EQ(asked, entry.asked) << entry.name;
        EXPECT_EQ(TakeLine(capture).sink, entry.sink) << entry.name;
    }
}

TEST(LogLevel, OnlyTheAnswerOneLetsALinePass)
{
    LogCapture capture;
    CountingHook<CheckLevel> questions;
    for (const int answer : {0, 2, -1}) {
        questions.FailFrom(1, answer, 0);
        for (const EntryPoint& entry : EntryPoints()) {
            entry.log("Fn", kPath, "x");
            EXPECT_EQ(capture.Lines().size(), entry.asked.empty() ? 1U : 0U) << entry.name << ' ' << answer;
            capture.Clear();
        }
    }
}

TEST(LogLevel, StatusAboveFatalIsNeverLogged)
{
    LogCapture capture;
    for (uint32_t level = 5; level <= 15; ++level) {
        const uint32_t status = 0x1010001 | level << 12;
        qel::StatusFactory::GetInstance().RegisterErrorNo(status, "registered");
        QEL_LOG_IMPL("Fn", kPath, 7, status, "x");
    }
    EXPECT_EQ(capture.Lines().size(), 0U);
    EXPECT_EQ(capture.CheckLogLevelCalls(), 0U);
}

TEST(LogLevel, AtErrorThePlainFormIsFilteredOnlyByTheSink)
{
    LogCapture capture;
    capture.SetLibraryLevel(3);
    QEL_LOG_IMPL("Fn", kPath, 7, "written");
    EXPECT_TRUE(capture.HasMessage(LogSink::kInfo, "written", "running ok"));
    EXPECT_EQ(capture.CheckLogLevelCalls(1), 1U);
    EXPECT_EQ(capture.CheckLogLevelCalls(), 1U);

    capture.SetMinimumLevel(3);
    QEL_LOG_IMPL("Fn", kPath, 7, "filtered");
    EXPECT_FALSE(capture.HasMessage(LogSink::kInfo, "filtered"));
    EXPECT_EQ(capture.CheckLogLevelCalls(1), 2U);
}

TEST(LogLevel, AtErrorOnlyTheStatusFormIsFilteredByTheLibrary)
{
    const std::map<std::string, size_t> wanted = {
        {"plain", 1},        {"debug status", 0}, {"warn status", 0}, {"error status", 1},
        {"fatal status", 1}, {"event", 1},        {"trace", 1},       {"operation", 1},
    };
    LogCapture capture;
    capture.SetLibraryLevel(3);
    for (const EntryPoint& entry : EntryPoints()) {
        entry.log("Fn", kPath, "x");
        EXPECT_EQ(capture.Lines().size(), wanted.at(entry.name)) << entry.name;
        capture.Clear();
    }
    QEL_LOG_IMPL("Fn", kPath, 7, kRunningOk, "x");
    EXPECT_EQ(capture.Lines().size(), 0U);
}

TEST(LogLevel, StatusBelowTheCurrentLevelIsNeitherFormattedNorChecked)
{
    LogCapture capture;
    capture.SetLibraryLevel(3);
    CountingHook<FormatMessage> formats;
    for (const uint32_t status : {kDebugStatus, kInfoStatus, kWarnStatus, 0x1015000U}) {
        QEL_LOG_IMPL("Fn", kPath, 7, status, "x");
    }
    EXPECT_EQ(formats.Count(), 0U);
    EXPECT_EQ(capture.CheckLogLevelCalls(), 0U);
}

TEST(LogLevel, OutputIsEnabledFromTheCurrentLevelUpToFatal)
{
    LogCapture capture;
    QELLog& log = QELLog::GetInstance();
    for (int current = 0; current <= 3; ++current) {
        capture.SetLibraryLevel(current);
        log.QELRefreshLevel();
        for (uint32_t level = 0; level <= 15; ++level) {
            const bool wanted = static_cast<uint32_t>(current) <= level && level <= 4;
            EXPECT_EQ(log.QELLogOutputEnable(0x1010001 | level << 12), wanted) << current << ' ' << level;
            EXPECT_EQ(log.QELLogOutputEnable(0xFFFF0FFF | level << 12), wanted) << current << ' ' << level;
        }
    }
}

TEST(LogLevel, LibraryLevelOutside0To3CountsAsInfo)
{
    LogCapture capture;
    QELLog& log = QELLog::GetInstance();
    for (const int level : {-1, 4, 5, 100, INT32_MAX, INT32_MIN}) {
        capture.SetLibraryLevel(level);
        EXPECT_EQ(log.QELGetCurLogLevel(), 1U) << level;
        EXPECT_EQ(log.QELRefreshLevel(), 1) << level;
        EXPECT_FALSE(log.QELLogOutputEnable(kDebugStatus)) << level;
        EXPECT_TRUE(log.QELLogOutputEnable(kInfoStatus)) << level;
    }
    for (const int level : {0, 1, 2, 3}) {
        capture.SetLibraryLevel(level);
        EXPECT_EQ(log.QELGetCurLogLevel(), static_cast<uint32_t>(level));
    }
}

TEST(LogLevel, LevelIsReadForModule38WithAClearedEventFlag)
{
    LogCapture capture;
    CountingHook<GetLevel> questions;
    questions.OnCall([](uint64_t, int moduleId, int* enableEvent) -> std::optional<int> {
        EXPECT_EQ(moduleId, kModule);
        EXPECT_NE(enableEvent, nullptr);
        EXPECT_EQ(*enableEvent, 0);
        *enableEvent = 77;
        return 2;
    });
    EXPECT_EQ(QELLog::GetInstance().QELGetCurLogLevel(), 2U);
    EXPECT_EQ(questions.Count(), 2U);  // once when the logger was initialised
}

TEST(LogLevel, NewLibraryLevelCountsFromTheRefreshOn)
{
    LogCapture capture;
    capture.SetLibraryLevel(2);
    QELLog& log = QELLog::GetInstance();
    EXPECT_TRUE(log.QELLogOutputEnable(kWarnStatus));

    capture.SetLibraryLevel(3);
    EXPECT_EQ(log.QELGetCurLogLevel(), 3U);
    QEL_LOG_IMPL("Fn", kPath, 7, kWarnStatus, "before");
    EXPECT_EQ(capture.Lines().size(), 1U);

    EXPECT_EQ(log.QELRefreshLevel(), 3);
    QEL_LOG_IMPL("Fn", kPath, 7, kWarnStatus, "after");
    EXPECT_EQ(capture.Lines().size(), 1U);
}

TEST(LogLevel, NothingRefreshesTheLevelOnItsOwn)
{
    LogCapture capture;
    for (int round = 0; round < 3; ++round) {
        for (const EntryPoint& entry : EntryPoints()) {
            entry.log("Fn", kPath, "x");
        }
    }
    EXPECT_EQ(capture.GetLevelCalls(), 1U);
}

// ---- QELSaveLog --------------------------------------------------------------------------------------------------

struct SaveRow {
    uint32_t level;
    LogSink sink;
    int sinkLevel;
    int sinkLine;
    int asked;  // -1: not asked
};

const SaveRow kSaveRows[] = {
    {0, LogSink::kDebug, 0, 146, 0},  {1, LogSink::kInfo, 1, 157, 1},          {2, LogSink::kWarn, 2, 142, 2},
    {3, LogSink::kError, 3, 144, -1}, {4, LogSink::kInfo, 1, 157, 1},          {5, LogSink::kEvent, 5, 148, -1},
    {6, LogSink::kInner, 6, 150, -1}, {7, LogSink::kWithKv, 5, 155, 5},        {8, LogSink::kInfo, 1, 157, 1},
    {15, LogSink::kInfo, 1, 157, 1},  {UINT32_MAX, LogSink::kInfo, 1, 157, 1},
};

TEST(SaveLog, EachLevelHasItsSinkAndLineNumber)
{
    LogCapture capture;
    for (const SaveRow& row : kSaveRows) {
        QELLog::GetInstance().QELSaveLog(kModule, row.level, "text %s\n", "begun");
        const LogLine line = TakeLine(capture);
        ExpectLine(line, row.sink, row.sinkLevel, SinkPrefix(row.sinkLine) + "text %s\n");
        EXPECT_EQ(line.pairs.size(), row.level == 7 ? 1U : 0U) << row.level;
    }
}

TEST(SaveLog, LevelIsCheckedOnceForTheModule)
{
    using Questions = std::vector<std::pair<int, int>>;  // module and level
    LogCapture capture;
    CountingHook<CheckLevel> questions;
    for (const SaveRow& row : kSaveRows) {
        Questions asked;
        questions.OnCall([&](uint64_t, int moduleId, int level) -> std::optional<int> {
            asked.emplace_back(moduleId, level);
            return 0;
        });
        QELLog::GetInstance().QELSaveLog(11, row.level, "x", nullptr);
        EXPECT_EQ(asked, row.asked == -1 ? Questions() : (Questions{{11, row.asked}})) << row.level;
        EXPECT_EQ(capture.Lines().size(), row.asked == -1 ? 1U : 0U) << row.level;
        capture.Clear();
    }
}

TEST(SaveLog, PassesTheModuleIdOn)
{
    LogCapture capture;
    for (const SaveRow& row : kSaveRows) {
        QELLog::GetInstance().QELSaveLog(11, row.level, "x", "begun");
        EXPECT_EQ(TakeLine(capture).moduleId, 11) << row.level;
    }
}

TEST(SaveLog, NullTextIsIgnored)
{
    LogCapture capture;
    for (const SaveRow& row : kSaveRows) {
        QELLog::GetInstance().QELSaveLog(kModule, row.level, nullptr, "begun");
    }
    EXPECT_EQ(capture.Lines().size(), 0U);
}

TEST(SaveLog, IgnoresTheCurrentLevel)
{
    LogCapture capture;
    capture.SetLibraryLevel(3);
    QELLog::GetInstance().QELSaveLog(kModule, 0, "x", nullptr);
    EXPECT_EQ(TakeLine(capture).sink, LogSink::kDebug);
}

// ---- First use, threads, exit ------------------------------------------------------------------------------------

// ---- errno -----------------------------------------------------------------------------------------------------

// A logging library in which every function changes errno; the sinks write nothing.
class ErrnoChangingSinks {
public:
    ErrnoChangingSinks()
    {
        for (const char* sink : {"VlogDebugInner", "VlogInfoInner", "VlogWarnInner", "VlogErrorInner", "VlogEventInner",
                                 "VlogInner", "VlogWithKVInner"}) {
            sinks_.push_back(std::make_unique<ImportHook>(sink, reinterpret_cast<void*>(&ChangeErrno)));
        }
    }

private:
    static void ChangeErrno(...) { errno = EIO; }

    std::vector<std::unique_ptr<ImportHook>> sinks_;
};

class LogErrno : public testing::Test {
protected:
    LogErrno()
    {
        levels_.OnCall([this](uint64_t, int, int) { return Change(isOn_ ? 1 : 0); });
        tids_.OnCall([](uint64_t) { return Change(7); });
        inits_.OnCall([](uint64_t) { return Change(0); });
        reads_.OnCall([](uint64_t, int, int*) { return Change(0); });
    }

    static std::optional<int> Change(int answer)
    {
        errno = EIO;
        return answer;
    }

    bool isOn_ = true;
    LogCapture capture_;
    CountingHook<CheckLevel> levels_;
    CountingHook<GetTid> tids_;
    CountingHook<InitSink> inits_;
    CountingHook<GetLevel> reads_;
};

// Runs in a process that has not logged yet, so the first line opens the library.
TEST_F(LogErrno, MessageShowsTheErrnoOfTheCall)
{
    const std::string format = "%m%s";  // an extension, which the compiler would remark on
    const char* const fmt = format.c_str();
    const std::vector<std::function<void()>> calls = {
        [fmt] { QEL_LOG_IMPL("Fn", kPath, 1, fmt, ""); },
        [fmt] { QEL_LOG_IMPL("Fn", kPath, 1, kDebugStatus, fmt, ""); },
        [fmt] { QEL_LOG_IMPL("Fn", kPath, 1, kInfoStatus, fmt, ""); },
        [fmt] { QEL_LOG_IMPL("Fn", kPath, 1, kWarnStatus, fmt, ""); },
        [fmt] { QEL_LOG_IMPL("Fn", kPath, 1, kErrorStatus, fmt, ""); },
        [fmt] { QEL_EVENT_LOG_IMPL("Fn", kPath, 1, fmt, ""); },
        [fmt] { QEL_TRACE_LOG_IMPL("Fn", kPath, 1, "begun", fmt, ""); },
        [fmt] { QEL_OPLOG_IMPL("Fn", kPath, 1, fmt, ""); },
    };
    for (const auto& call : calls) {
        errno = ENOENT;
        call();
        EXPECT_EQ(TakeLine(capture_).Message(), "No such file or directory");
    }
}

TEST_F(LogErrno, EveryEntryPointLeavesItAsItWas)
{
    const ErrnoChangingSinks sinks;
    for (const bool isOn : {true, false}) {
        isOn_ = isOn;
        for (const EntryPoint& entry : EntryPoints()) {
            errno = ENOENT;
            entry.log("Fn", kPath, "x");
            EXPECT_EQ(errno, ENOENT) << entry.name << ' ' << isOn;
        }
    }
}

TEST_F(LogErrno, SaveLogLeavesItAsItWas)
{
    const ErrnoChangingSinks sinks;
    for (uint32_t level = 0; level <= 8; ++level) {
        for (const bool isOn : {true, false}) {
            isOn_ = isOn;
            errno = ENOENT;
            QELLog::GetInstance().QELSaveLog(kModule, level, "x", "begun");
            EXPECT_EQ(errno, ENOENT) << level << ' ' << isOn;
        }
    }
}

TEST(LogInit, FirstUseOpensTheSinkAndThenReadsTheLevel)
{
    LogCapture capture;
    CountingHook<InitSink> inits;
    CountingHook<GetLevel> questions;
    std::vector<std::string> order;
    inits.OnCall([&](uint64_t) -> std::optional<int> {
        order.emplace_back("init");
        return 0;
    });
    questions.OnCall([&](uint64_t, int, int*) -> std::optional<int> {
        order.emplace_back("level");
        return 3;
    });
    EXPECT_FALSE(QELLog::GetInstance().QELLogOutputEnable(kWarnStatus));
    EXPECT_EQ(order, (std::vector<std::string>{"init", "level"}));
}

TEST(LogInit, EveryEntryPointInitialises)
{
    for (const EntryPoint& entry : EntryPoints()) {
        ChildProcess child([&entry] {
            LogCapture capture;
            entry.log("Fn", kPath, "x");
            EXPECT_EQ(capture.InitCalls(), 1U) << entry.name;
            EXPECT_EQ(capture.Lines().size(), 1U) << entry.name;
            return 0;
        });
        EXPECT_TRUE(child.WaitExit(10s).ExitedWith(0)) << entry.name;
    }
}

TEST(LogInit, FailureToOpenTheSinkIsNotNoticed)
{
    LogCapture capture;
    CountingHook<InitSink> inits;
    inits.FailFrom(1, -1, 0);
    QEL_LOG_IMPL("Fn", kPath, 7, "x");
    EXPECT_EQ(capture.Lines().size(), 1U);
}

TEST(LogInit, SinkIsOpenedOnceHoweverManyThreadsComeFirst)
{
    LogCapture capture;
    CountingHook<InitSink> inits;
    inits.OnCall([](uint64_t, auto...) -> std::optional<int> {
        std::this_thread::yield();
        return 0;
    });
    std::vector<std::thread> threads;
    for (int i = 0; i < 16; ++i) {
        threads.emplace_back([] { QEL_EVENT_LOG_IMPL("Fn", kPath, 7, "x"); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    QELLog::GetInstance().Init();
    EXPECT_EQ(inits.Count(), 1U);
    EXPECT_EQ(capture.GetLevelCalls(), 1U);
    EXPECT_EQ(capture.Lines().size(), 16U);
}

TEST(LogInit, ChildLogsThoughAThreadOfItsParentIsOpeningTheSink)
{
    LogCapture capture;
    CountingHook<InitSink> inits;
    std::promise<void> inside;
    std::promise<void> mayLeave;
    inits.OnCall([&](uint64_t number, auto...) -> std::optional<int> {
        if (number == 1) {
            inside.set_value();
            mayLeave.get_future().wait_for(gaktest::Stretched(20s));
        }
        return 0;
    });
    std::thread opener([] { QEL_EVENT_LOG_IMPL("Fn", kPath, 7, "x"); });
    EXPECT_EQ(inside.get_future().wait_for(gaktest::Stretched(10s)), std::future_status::ready);
    ChildProcess child([&] {
        QEL_EVENT_LOG_IMPL("Fn", kPath, 7, "x");
        EXPECT_EQ(inits.Count(), 2U) << "the child opens the sink itself";
        EXPECT_EQ(capture.Lines().size(), 1U);
        return 0;
    });
    EXPECT_TRUE(child.WaitExit(10s).ExitedWith(0));
    mayLeave.set_value();
    opener.join();
    EXPECT_EQ(inits.Count(), 1U);
    EXPECT_EQ(capture.Lines().size(), 1U);
}

TEST(LogInit, ThereIsOneInstance)
{
    LogCapture capture;
    EXPECT_EQ(&QELLog::GetInstance(), &QELLog::GetInstance());
}

TEST(LogThreads, LinesOfManyThreadsDoNotMix)
{
    constexpr int kThreads = 8;
    constexpr int kLines = 40;
    LogCapture capture;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([thread] {
            const std::string message(500, static_cast<char>('a' + thread));
            for (int line = 0; line < kLines; ++line) {
                EntryPoints()[static_cast<size_t>(line) % EntryPoints().size()].log("Fn", kPath, message.c_str());
            }
        });
    }
    for (int i = 0; i < 20; ++i) {
        QELLog::GetInstance().QELRefreshLevel();
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    std::map<std::string, int> lines;
    for (const LogLine& line : capture.Lines()) {
        const gaktest::LogText text = gaktest::ParseLogText(line.text);
        EXPECT_EQ(text.threadId, line.threadId);
        ++lines[text.message];
    }
    EXPECT_EQ(lines.size(), static_cast<size_t>(kThreads));
    for (const auto& [message, count] : lines) {
        EXPECT_EQ(count, kLines) << message;
    }
}

TEST(LogMemory, LineWithoutAStatusTextAllocatesNothing)
{
    LogCapture capture;
    QELLog::GetInstance();
    size_t news = 0;
    size_t mallocs = 0;
    {
        CountingHook<calls::OperatorNew> newCalls;
        CountingHook<calls::Malloc> mallocCalls;
        QEL_EVENT_LOG_IMPL("Fn", kPath, 7, "x");
        QEL_TRACE_LOG_IMPL("Fn", kPath, 7, "begun", "x");
        QEL_OPLOG_IMPL("Fn", kPath, 7, "x");
        news = newCalls.Count();
        mallocs = mallocCalls.Count();
    }
    EXPECT_EQ(news, 0U);
    EXPECT_EQ(mallocs, 0U);
    EXPECT_EQ(capture.Lines().size(), 3U);
}

TEST(LogMemory, LineIsWrittenWithoutTheStatusTextThatThereIsNoMemoryFor)
{
    constexpr uint32_t kStatusWithALongText = 0x1013007;  // too long to be stored inside its own string
    LogCapture capture;
    QELLog::GetInstance();
    {
        CountingHook<NewOfStrings> newCalls;
        newCalls.OnCall([](uint64_t number, size_t) -> std::optional<void*> {
            if (number == 1) {
                throw std::bad_alloc();
            }
            return std::nullopt;
        });
        EXPECT_NO_THROW(QEL_LOG_IMPL("Fn", kPath, 7, kStatusWithALongText, "x"));
    }
    ExpectLine(TakeLine(capture), LogSink::kError, 3,
               SinkPrefix(144) + "x,[qel/device/src/gak/ppc_client:7:Fn]" + Tid() + " Msg: \n");
}

// The handler is registered before the logger is first used, so it runs after everything that the logger could have
// destroyed. The text is too long to stand inside its own string: it would be freed memory by then.
TEST(LogExit, LinesAreWrittenWhileTheProcessExits)
{
    static const char text[] = "a text that is too long to be stored inside its own string";
    static LogCapture* capture = nullptr;
    ChildProcess child([]() -> int {
        atexit([] {
            QEL_LOG_IMPL("Fn", kPath, 7, kForeign, "late");
            _exit(capture->HasMessage(LogSink::kError, "late", text) ? 0 : 1);
        });
        capture = new LogCapture;
        qel::StatusFactory::GetInstance().RegisterErrorNo(kForeign, text);
        QEL_LOG_IMPL("Fn", kPath, 7, "early");
        exit(2);
    });
    EXPECT_TRUE(child.WaitExit(10s).ExitedWith(0));
}

}  // namespace
