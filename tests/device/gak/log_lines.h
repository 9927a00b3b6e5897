#ifndef GAKPPC_LOG_LINES_H
#define GAKPPC_LOG_LINES_H

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "log_capture.h"

// Log lines of the library's classes as short texts that can be compared and read:
//
//     "info SendMsg: PpcInterface::SendMsg, size=0, subpid=0 | running ok"
//     "event RecvData: [GAKPPCSER] ..."
//
// What all lines have in common (module, format, place of the sink, thread id) is checked once, in RenderLine.
namespace gaktest {

constexpr char kCodecPath[] = "qel/device/src/gak/ppc_interface";
constexpr char kServerPath[] = "qel/device/src/gak/ppc_server.cpp";

// The texts of the status numbers that codec and server log, written out apart from the library's table.
inline std::string TextOfStatus(uint32_t status)
{
    static const std::map<uint32_t, std::string> texts = {
        {0x1011000, "running ok"},
        {0x1012003, "warnging"},
        {0x1013007, "memory exhausted error"},
        {0x1013008, "interger reached reverse"},
        {0x1093030, "Init PPC driver fail"},
        {0x1093031, "Create PPC server or PPC client fail"},
        {0x1093032, "Destory PPC server or PPC client fail"},
        {0x1093034, "PPC get or set msg buffer fail"},
        {0x1093036, "PPC session is not existed"},
        {0x1093037, "PPC send or receive msg fail"},
        {0x1093038, "PPC msg free fail"},
        {0x1093039, "PPC alloc memory for msg fail"},
        {0x109303A, "PPC message length not match"},
        {0x109303B, "PPC message buffer is null"},
        {0x109303D, "PPC message server invalid param fail"},
        {0x109303F, "PPC message server receive server or client socket closed msg"},
        {0x1093041, "PPC close session failed"},
    };
    return texts.at(status);
}

inline std::string Plain(const std::string& function, const std::string& message)
{
    return "info " + function + ": " + message + " | running ok";
}

inline std::string WithStatus(uint32_t status, const std::string& function, const std::string& message)
{
    static const char* const sinks[] = {"debug", "info", "warn", "error"};
    return sinks[(status >> 12) & 3] + (" " + function) + ": " + message + " | " + TextOfStatus(status);
}

inline std::string Event(const std::string& function, const std::string& message)
{
    return "event " + function + ": " + message;
}

inline std::string RenderLine(const gaktest::LogLine& line, const gaktest::LogText& text)
{
    struct Sink {
        const char* name;
        int level;
        int sourceLine;
    };
    static const std::map<gaktest::LogSink, Sink> sinks = {{gaktest::LogSink::kInfo, {"info", 1, 157}},
                                                           {gaktest::LogSink::kWarn, {"warn", 2, 142}},
                                                           {gaktest::LogSink::kError, {"error", 3, 144}},
                                                           {gaktest::LogSink::kEvent, {"event", 5, 148}}};
    const auto sink = sinks.find(line.sink);
    if (sink == sinks.end()) {
        ADD_FAILURE() << "unexpected sink: " << line;
        return text.message;
    }
    EXPECT_EQ(line.moduleId, 38) << line;
    EXPECT_EQ(line.level, sink->second.level) << line;
    EXPECT_EQ(line.format, "[%s:%d]%s") << line;
    EXPECT_EQ(text.sinkPath, "qel/device/../common/src/log") << line;
    EXPECT_EQ(text.sinkLine, sink->second.sourceLine) << line;
    EXPECT_EQ(text.threadId, line.threadId) << line;
    EXPECT_GT(text.line, 0) << line;
    const bool isEvent = line.sink == gaktest::LogSink::kEvent;
    return sink->second.name + (" " + text.function) + ": " + text.message + (isEvent ? "" : " | " + text.statusText);
}

// The lines of one source file, in order; of one thread, where its name is given.
inline std::vector<std::string> LinesOf(const gaktest::LogCapture& log, const std::string& path,
                                        const std::string& threadName = "")
{
    std::vector<std::string> rendered;
    for (const gaktest::LogLine& line : log.Lines()) {
        const gaktest::LogText text = gaktest::ParseLogText(line.text);
        if (text.file == path && (threadName.empty() || line.threadName == threadName)) {
            rendered.push_back(RenderLine(line, text));
        }
    }
    return rendered;
}

inline std::vector<std::string> CodecLines(const gaktest::LogCapture& log)
{
    return LinesOf(log, kCodecPath);
}

inline std::vector<std::string> ServerLines(const gaktest::LogCapture& log, const std::string& threadName = "")
{
    return LinesOf(log, kServerPath, threadName);
}

}  // namespace gaktest

#endif
