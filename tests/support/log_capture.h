#ifndef GAKPPC_LOG_CAPTURE_H
#define GAKPPC_LOG_CAPTURE_H

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "deadline.h"
#include "import_hook.h"

namespace gaktest {

// The functions of the device logging library that write a line.
enum class LogSink {
    kDebug,   // VlogDebugInner
    kInfo,    // VlogInfoInner
    kWarn,    // VlogWarnInner
    kError,   // VlogErrorInner
    kEvent,   // VlogEventInner
    kInner,   // VlogInner
    kWithKv,  // VlogWithKVInner
};

// The parts of a line's text. What a line does not have is empty or 0.
//
//   driver     "[SINKPATH:SINKLINE][FUNCTION:SINKLINE] >>> MESSAGE\n\n"
//   library    "[SINKPATH:SINKLINE]MESSAGE,[FILE:LINE:FUNCTION]TID Msg: STATUSTEXT\n"
//   event      "[SINKPATH:SINKLINE]MESSAGE,[FILE:LINE:FUNCTION]TID\n", a trace likewise
//   operation  "[SINKPATH:SINKLINE][FILE:LINE:FUNCTION]TID MESSAGE\n"
struct LogText {
    bool fromDriver = false;
    std::string sinkPath;
    int sinkLine = 0;
    std::string message;
    std::string file;
    int line = 0;
    std::string function;
    int threadId = 0;
    std::string statusText;
};

// Takes a text apart; one that has none of the forms above becomes all message.
LogText ParseLogText(const std::string& text);

struct LogLine {
    LogSink sink;
    int moduleId;
    int level;           // as passed to VlogInner and VlogWithKVInner, otherwise what the sink's name says
    std::string format;  // as passed
    std::string text;    // formatted, newlines included
    std::vector<std::pair<std::string, std::string>> pairs;  // VlogWithKVInner only
    int threadId;                                            // of the caller, from the kernel
    std::string threadName;                                  // likewise

    std::string Message() const { return ParseLogText(text).message; }
    std::string StatusText() const { return ParseLogText(text).statusText; }
};

std::ostream& operator<<(std::ostream& out, LogSink sink);
std::ostream& operator<<(std::ostream& out, const LogLine& line);  // for the messages of failing tests

// Stands in for the device logging library, as seen by libgakppc, for the length of a scope: lines are kept instead of
// written, and the level questions are answered as the test wants. Only one capture can exist at a time; lines that
// the library wrote before are not seen. All members may be used while other threads log.
class LogCapture {
public:
    explicit LogCapture(const std::string& library = "libgakppc.so");
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // CheckLogLevel answers 1 for `level` and above. At first 0: everything is on.
    void SetMinimumLevel(int level);
    // The answer of vlog_getlevel. At first 0 (debug).
    void SetLibraryLevel(int level);

    size_t CheckLogLevelCalls() const;
    size_t CheckLogLevelCalls(int level) const;
    // Calls of vlog_getlevel and vlog_init; the latter is not passed on.
    size_t GetLevelCalls() const;
    size_t InitCalls() const;

    // The lines so far, in order.
    std::vector<LogLine> Lines() const;
    void Clear();

    // Lines whose text contains `part`, of any sink or of one.
    size_t Count(const std::string& part) const;
    size_t Count(LogSink sink, const std::string& part) const;
    bool Has(LogSink sink, const std::string& part) const { return Count(sink, part) > 0; }

    // Lines whose message is exactly `message`; with the text of their status where that is given.
    size_t CountMessage(LogSink sink, const std::string& message) const;
    size_t CountMessage(LogSink sink, const std::string& message, const std::string& statusText) const;
    bool HasMessage(LogSink sink, const std::string& message) const { return CountMessage(sink, message) > 0; }
    bool HasMessage(LogSink sink, const std::string& message, const std::string& statusText) const
    {
        return CountMessage(sink, message, statusText) > 0;
    }

    // Wait until the lines so far fulfil `condition`, or `count` of them contain `part`. False when the deadline came
    // first. `condition` runs under the capture's mutex: it must not log or call the capture.
    bool WaitFor(const std::function<bool(const std::vector<LogLine>&)>& condition, Deadline deadline) const;
    bool WaitFor(const std::string& part, Deadline deadline, size_t count = 1) const;

private:
    std::vector<std::unique_ptr<ImportHook>> hooks_;
};

}  // namespace gaktest

#endif
