#ifndef GAKPPC_DRIVER_TEST_H
#define GAKPPC_DRIVER_TEST_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "fault.h"
#include "free_counter.h"
#include "import_hook.h"
#include "log_capture.h"
#include "ppc.h"
#include "process.h"
#include "raw_peer.h"

// What the driver's tests share.
namespace gaktest {

using namespace std::chrono_literals;

// ---- Log lines ----

// A line of the driver, compared as a whole: "[path:N][function:N] >>> message" with the line's ending.
MATCHER_P3(DriverLine, sink, function, message, "")
{
    const std::string text = message;
    const std::string number = std::to_string(gaktest::ParseLogText(arg.text).sinkLine);
    const std::string ending = text.rfind("memset_s error: ", 0) == 0 ? "\n" : "\n\n";
    const std::string expected =
        "[qel/device/src/ppc/ppc:" + number + "][" + function + ":" + number + "] >>> " + text + ending;
    *result_listener << "expected " << sink << ' ' << expected;
    return arg.sink == sink && arg.moduleId == 38 && number != "0" && arg.text == expected;
}

inline auto ErrorLine(const std::string& function, const std::string& message)
{
    return DriverLine(LogSink::kError, function, message);
}
inline auto WarnLine(const std::string& function, const std::string& message)
{
    return DriverLine(LogSink::kWarn, function, message);
}
inline auto InfoLine(const std::string& function, const std::string& message)
{
    return DriverLine(LogSink::kInfo, function, message);
}

// "Broken pipe(errno: 32)".
inline std::string ErrnoText(int error)
{
    return std::string(strerror(error)) + "(errno: " + std::to_string(error) + ")";
}

inline std::string PointerText(const void* pointer)
{
    char text[32];
    snprintf(text, sizeof(text), "%p", pointer);
    return text;
}

inline std::string PidText()
{
    return std::to_string(getpid());
}

// ---- Records, as callers may see them ----

struct SessionView {
    uint32_t magic;
    int32_t fd;
    uint32_t reserved[6];
};

struct ServerView {
    int32_t listenFd;
    void* link;
};

inline SessionView ViewOf(const PpcSession* session)
{
    SessionView view;
    memcpy(&view, session, sizeof(view));
    return view;
}

inline ServerView ViewOf(const PpcServerHead* server)
{
    ServerView view;
    memcpy(&view, server, sizeof(view));
    return view;
}

inline bool IsOpen(int fd)
{
    return fcntl(fd, F_GETFD) != -1;
}

// ---- Things to talk with ----

constexpr int kServerId = 77;

// A session that the library connected to a plain socket.
class Connection {
public:
    Connection() : Connection(gaktest::RawListen(kServerId)) {}
    explicit Connection(const Fd& listener)
    {
        EXPECT_EQ(drvPpcSessionConnect(kServerId, &session), PPC_OK);
        peer = gaktest::RawAccept(listener, 5s);
    }
    ~Connection() { End(); }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    int FdNumber() const { return ViewOf(session).fd; }

    // The first time; later calls do nothing.
    void End()
    {
        if (!ended_) {
            ended_ = true;
            EXPECT_EQ(drvPpcSessionDestroy(session), PPC_OK);
        }
    }

    PpcSession* session = nullptr;
    Fd peer;

private:
    bool ended_ = false;
};

// A listening endpoint of the library.
class Endpoint {
public:
    explicit Endpoint(int serverId = kServerId) { EXPECT_EQ(drvPpcServerCreate(serverId, &server), PPC_OK); }
    ~Endpoint() { End(); }
    Endpoint(const Endpoint&) = delete;
    Endpoint& operator=(const Endpoint&) = delete;

    void End()
    {
        if (!ended_) {
            ended_ = true;
            EXPECT_EQ(drvPpcServerDestroy(server), PPC_OK);
        }
    }

    PpcServerHead* server = nullptr;

private:
    bool ended_ = false;
};

// A message descriptor; with bytes attached where they are given.
class Message {
public:
    explicit Message(PpcSession* session) { EXPECT_EQ(drvPpcAllocMsg(session, &msg, 1), PPC_OK); }
    Message(PpcSession* session, Bytes bytes) : Message(session)
    {
        bytes_ = std::move(bytes);
        EXPECT_EQ(drvPpcAddMsgBuffer(msg, bytes_.data(), static_cast<int>(bytes_.size())), PPC_OK);
    }
    ~Message() { EXPECT_EQ(drvPpcFreeMsg(msg), PPC_OK); }
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;

    void* Address() const { return Buffer().first; }
    uint32_t Length() const { return Buffer().second; }
    Bytes Content() const
    {
        const auto [address, length] = Buffer();
        const auto* first = static_cast<const uint8_t*>(address);
        return Bytes(first, first + length);
    }

    PpcMsg* msg = nullptr;

private:
    std::pair<void*, uint32_t> Buffer() const
    {
        void* address = nullptr;
        uint32_t length = 0;
        EXPECT_EQ(drvPpcGetMsgBuffer(msg, 0, &address, &length), PPC_OK);
        return {address, length};
    }

    Bytes bytes_;
};

// ---- Watching the library ----

struct LevelQuestion : calls::OfGakppc {
    static constexpr const char* kSymbol = "CheckLogLevel";
    using Signature = int(int, int);
};

// Stops a thread inside a hooked call until the test lets it go on.
class Gate {
public:
    // By the thread: reports its arrival and waits.
    void Pass()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        ++arrived_;
        changed_.notify_all();
        changed_.wait_for(lock, Stretched(20s), [this] { return open_; });
    }

    bool WaitForArrivals(int count)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, Stretched(10s), [=] { return arrived_ >= count; });
    }

    void Open()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        open_ = true;
        changed_.notify_all();
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int arrived_ = 0;
    bool open_ = false;
};

// With the socket directory prepared and the log captured.
class DriverTest : public testing::Test {
protected:
    DriverTest() { EXPECT_EQ(ppcInit(), 0); }

    gaktest::LogCapture log_;
};

}  // namespace gaktest

#endif
