#ifndef GAKPPC_CLIENT_FIXTURE_H
#define GAKPPC_CLIENT_FIXTURE_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "fault.h"
#include "gak.h"
#include "log_capture.h"
#include "ppc.h"
#include "ppc_client.h"
#include "process.h"
#include "raw_peer.h"

// What the tests of the client and of the exported functions share: the client's log lines in a form that can be
// compared, hooks for the driver calls that it makes, and a fixture with a daemon of plain system calls.
namespace gaktest {

constexpr int kServerId = 19280;
constexpr auto kWait = std::chrono::seconds(20);

// Status numbers with their texts.
struct Status {
    uint32_t number;
    const char* text;

    LogSink Sink() const { return static_cast<LogSink>(number >> 12 & 0xF); }
};
constexpr Status kOk{0x1011000, "running ok"};
constexpr Status kMemoryExhausted{0x1013007, "memory exhausted error"};
constexpr Status kDriverError{0x1033022, "ovra drv return error"};
constexpr Status kInitFail{0x1093030, "Init PPC driver fail"};
constexpr Status kCreateFail{0x1093031, "Create PPC server or PPC client fail"};
constexpr Status kConnectFail{0x1093035, "PPC connect is failed"};
constexpr Status kNoSession{0x1093036, "PPC session is not existed"};
constexpr Status kSendRecvFail{0x1093037, "PPC send or receive msg fail"};
constexpr Status kMsgAllocFail{0x1093039, "PPC alloc memory for msg fail"};
constexpr Status kInvalidParam{0x109303C, "PPC message client invalid param fail"};
constexpr Status kNotExpected{0x109303E, "PPC message client receive not expected msg continue"};
constexpr Status kSocketClosed{0x109303F, "PPC message server receive server or client socket closed msg"};
constexpr Status kRecvFail{0x1093040, "PPC receive msg failed"};

// Log lines as ClientLines renders them: of a call that carries a status, of a plain call, of an event.
inline std::string Line(const Status& status, const std::string& function, const std::string& message)
{
    std::ostringstream line;
    line << status.Sink() << ' ' << function << ": " << message << " | " << status.text;
    return line.str();
}

inline std::string Line(const std::string& function, const std::string& message)
{
    return Line(kOk, function, message);
}

inline std::string EventLine(const std::string& function, const std::string& message)
{
    std::ostringstream line;
    line << LogSink::kEvent << ' ' << function << ": " << message;
    return line.str();
}

// Whether all of a line that is the same for every line of its sink is as it must be.
inline bool HasItsSinksForm(const LogLine& line, const LogText& text)
{
    const int sinkLine = line.sink == LogSink::kInfo    ? 157
                         : line.sink == LogSink::kWarn  ? 142
                         : line.sink == LogSink::kError ? 144
                         : line.sink == LogSink::kEvent ? 148
                                                        : -1;
    return line.moduleId == 38 && line.format == "[%s:%d]%s" && text.sinkPath == "qel/device/../common/src/log" &&
           text.sinkLine == sinkLine && text.line > 0 && text.threadId == line.threadId && line.text.back() == '\n';
}

// The lines with the client's source path, in order.
inline std::vector<std::string> ClientLines(const LogCapture& log)
{
    std::vector<std::string> rendered;
    for (const LogLine& line : log.Lines()) {
        const LogText text = ParseLogText(line.text);
        if (text.fromDriver || text.file != "qel/device/src/gak/ppc_client") {
            continue;
        }
        std::ostringstream out;
        out << line.sink << ' ' << text.function << ": " << text.message;
        if (line.text.find(" Msg: ") != std::string::npos) {
            out << " | " << text.statusText;
        }
        if (!HasItsSinksForm(line, text)) {
            out << " -- wrong in: " << line;
        }
        rendered.push_back(out.str());
    }
    return rendered;
}

// The driver calls of the client, for CountingHook.
struct DrvInit : calls::OfGakppc {
    static constexpr const char* kSymbol = "drvPpcInit";
    using Signature = int();
};
struct DrvUninit : calls::OfGakppc {
    static constexpr const char* kSymbol = "drvPpcUninit";
    using Signature = int();
};
struct DrvClientCreate : calls::OfGakppc {
    static constexpr const char* kSymbol = "drvPpcClientCreate";
    using Signature = int(void**, int, int);
};
struct DrvClientDestroy : calls::OfGakppc {
    static constexpr const char* kSymbol = "drvPpcClientDestroy";
    using Signature = int(void*);
};
struct DrvConnect : calls::OfGakppc {
    static constexpr const char* kSymbol = "drvPpcSessionConnect";
    using Signature = int(int, PpcSession**);
};
struct DrvSessionDestroy : calls::OfGakppc {
    static constexpr const char* kSymbol = "drvPpcSessionDestroy";
    using Signature = int(PpcSession*);
};
struct DrvSend : calls::OfGakppc {
    static constexpr const char* kSymbol = "drvPpcSend";
    using Signature = int(PpcSession*, PpcMsg*, uint32_t);
};

// A call on a thread of its own. One that does not return in time ends the test program: nothing could be joined.
class BackgroundCall {
public:
    explicit BackgroundCall(std::function<uint32_t()> call) : result_(std::async(std::launch::async, std::move(call)))
    {
    }
    ~BackgroundCall()
    {
        if (result_.valid()) {
            Result();
        }
    }
    BackgroundCall(const BackgroundCall&) = delete;
    BackgroundCall& operator=(const BackgroundCall&) = delete;

    bool Returned() { return result_.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }

    uint32_t Result()
    {
        if (result_.wait_for(gaktest::Stretched(kWait)) != std::future_status::ready) {
            fprintf(stderr, "a call did not return\n");
            fflush(nullptr);
            abort();
        }
        return result_.get();
    }

private:
    std::future<uint32_t> result_;
};

inline uint32_t OwnPid()
{
    return static_cast<uint32_t>(getpid());
}

// What the worker sends, and what a daemon sends.
inline RawMessage FromWorker(uint32_t type, uint32_t device, uint32_t procType)
{
    return {type, device, static_cast<uint32_t>(kServerId), procType, OwnPid(), 0, {}};
}

inline RawMessage FromDaemon(uint32_t type, uint32_t device, uint32_t procType = 0)
{
    return {type, 0, device, procType, 0, 0, {}};
}

// A worker's process with a daemon's socket in it. Every test must leave as many descriptors and threads as it found,
// apart from the sessions, which are ended after it.
class ClientFixture : public testing::Test {
protected:
    void SetUp() override
    {
        threads_ = ThreadCount();   // before the first thread, which may be counted for a moment after it has ended
        std::thread([] {}).join();  // what the run-time library keeps of a first thread is no leak
        ASSERT_EQ(ppcInit(), 0);
        descriptors_ = OpenDescriptors();
        Listen();
    }

    void TearDown() override
    {
        client_.Destroy();
        listener_.Reset();
        EXPECT_EQ(OpenDescriptors(), descriptors_);
        EXPECT_TRUE(WaitUntil([this] { return ThreadCount() == threads_; }, kWait));
    }

    void Listen()
    {
        listener_ = RawListen(kServerId);
        ASSERT_TRUE(listener_.valid());
    }
    void StopListening()
    {
        listener_.Reset();
        unlink(SocketPath(kServerId).c_str());
    }

    Fd Accept() { return RawAccept(listener_, kWait); }

    // Opens the session and returns the daemon's end of it.
    Fd Open(uint32_t device, qel::PPCMessage::ProcessType procType)
    {
        EXPECT_NE(client_.GetPpcSession(device, procType), nullptr);
        Fd peer = Accept();
        EXPECT_TRUE(peer.valid());
        return peer;
    }

    // Whether no connection waits to be accepted.
    bool NobodyConnects() { return !WaitReadable(listener_, std::chrono::seconds(0)); }

    std::vector<std::string> Lines() const { return ClientLines(log_); }

    LogCapture log_;
    qel::PpcClient& client_ = *qel::PpcClient::GetInstance();
    Fd listener_;

private:
    size_t descriptors_ = 0;
    size_t threads_ = 0;
};

}  // namespace gaktest

#endif
