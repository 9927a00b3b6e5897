#ifndef GAKPPC_SERVER_FIXTURE_H
#define GAKPPC_SERVER_FIXTURE_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "daemon.h"
#include "driver_calls.h"
#include "fault.h"
#include "log_capture.h"
#include "log_lines.h"
#include "ppc.h"
#include "process.h"
#include "raw_peer.h"

namespace gaktest {

using namespace std::chrono_literals;

inline qel::PPCMessage Message(const RawMessage& raw)
{
    qel::PPCMessage msg;
    msg.set_type(static_cast<qel::PPCMessage::MsgType>(raw.type));
    msg.set_src_id(raw.src_id);
    msg.set_dest_id(raw.dest_id);
    msg.set_proc_type(static_cast<qel::PPCMessage::ProcessType>(raw.proc_type));
    msg.set_sub_proc_pid(raw.sub_proc_pid);
    msg.set_host_pid(raw.host_pid);
    return msg;
}

// The order for a worker: what the daemon sends to (device, sub-process).
inline qel::PPCMessage Order(uint32_t device, uint32_t pid)
{
    return Message({5, 0, device, 0, pid, 0, {}});
}

// What a worker reports of itself.
inline RawMessage Report(uint32_t device, uint32_t pid, uint32_t type = 0)
{
    return {type, device, kServerId, 0, pid, 0, {}};
}

// A daemon's handler that keeps what it is given. One for the process: handlers are plain functions.
class Inbox {
public:
    static void Handler(const qel::PPCMessage& msg) { Instance().Take(msg); }

    // Runs inside the handler, after the message has been kept.
    static void OnMessage(std::function<void(const qel::PPCMessage&)> action)
    {
        std::lock_guard<std::mutex> lock(Instance().mutex_);
        Instance().action_ = std::move(action);
    }
    static std::vector<RawMessage> Messages()
    {
        std::lock_guard<std::mutex> lock(Instance().mutex_);
        return Instance().messages_;
    }
    static bool WaitFor(size_t count, Deadline deadline = 10s)
    {
        Inbox& inbox = Instance();
        std::unique_lock<std::mutex> lock(inbox.mutex_);
        return inbox.changed_.wait_until(lock, deadline.When(), [&] { return inbox.messages_.size() >= count; });
    }
    static void Clear()
    {
        std::lock_guard<std::mutex> lock(Instance().mutex_);
        Instance().messages_.clear();
        Instance().action_ = nullptr;
    }

private:
    static Inbox& Instance()
    {
        static Inbox* const inbox = new Inbox;  // receive threads may run until the process ends
        return *inbox;
    }

    void Take(const qel::PPCMessage& msg)
    {
        RawMessage raw{static_cast<uint32_t>(msg.type()),
                       msg.src_id(),
                       msg.dest_id(),
                       static_cast<uint32_t>(msg.proc_type()),
                       msg.sub_proc_pid(),
                       msg.host_pid(),
                       {}};
        if (msg.has_lib_names()) {
            raw.lib_names.emplace(msg.lib_names().lib_name().begin(), msg.lib_names().lib_name().end());
        }
        std::function<void(const qel::PPCMessage&)> action;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            messages_.push_back(raw);
            action = action_;
            changed_.notify_all();
        }
        if (action) {
            action(msg);
        }
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<RawMessage> messages_;
    std::function<void(const qel::PPCMessage&)> action_;
};

// The library's calls only.
struct MutexLock : calls::OfGakppc {
    static constexpr const char* kSymbol = "pthread_mutex_lock";
    using Signature = int(pthread_mutex_t*);
};

// std::thread's calls; counts those of the test as well.
struct ThreadJoin {
    static constexpr const char* kSymbol = "pthread_join";
    static constexpr const char* kLibrary = "libstdc++.so.6";
    using Signature = int(pthread_t, void**);
};

// For calls that a defect would hold up for ever, with threads and locks that no test could end: they end the process.
inline void ExpectToReturn(const std::function<void()>& call)
{
    auto returned = std::async(std::launch::async, call);
    if (returned.wait_until(Deadline(20s).When()) != std::future_status::ready) {
        ADD_FAILURE() << "a call does not return";
        std::fflush(nullptr);
        _exit(1);
    }
    returned.get();
}

inline std::string OwnThreadName()
{
    char name[16] = "";
    pthread_getname_np(pthread_self(), name, sizeof(name));
    return name;
}

// The library finds no memory for what it wants to store while one exists.
class NoMemory {
public:
    NoMemory()
    {
        hook_.OnCall([](uint64_t, size_t) -> std::optional<void*> { throw std::bad_alloc(); });
    }

private:
    CountingHook<calls::OperatorNew> hook_;
};

// A worker in a process of its own. Make it before the server exists; it connects when it is started.
class WorkerProcess {
public:
    explicit WorkerProcess(const std::function<int(Fd& socket)>& body)
        : pipe_(MakePipe()), child_([this, &body] {
              char go = 0;
              pipe_.second.Reset();
              if (read(pipe_.first.get(), &go, 1) != 1) {
                  return 100;
              }
              Fd socket = RawConnect(static_cast<int>(kServerId));
              return socket.valid() ? body(socket) : 101;
          })
    {
    }

    void Start() { EXPECT_EQ(write(pipe_.second.get(), "g", 1), 1); }
    ChildProcess& Process() { return child_; }

private:
    static std::pair<Fd, Fd> MakePipe()
    {
        int fds[2] = {-1, -1};
        EXPECT_EQ(pipe2(fds, O_CLOEXEC), 0);
        return {Fd(fds[0]), Fd(fds[1])};
    }

    std::pair<Fd, Fd> pipe_;
    ChildProcess child_;
};

inline size_t CountThreads(const std::string& name)
{
    const std::vector<std::string> names = ThreadNames();
    return static_cast<size_t>(std::count(names.begin(), names.end(), name));
}

inline testing::AssertionResult ThreadsBecome(const std::string& name, size_t count)
{
    if (WaitUntil([&] { return CountThreads(name) == count; }, 10s)) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << CountThreads(name) << " threads are named " << name;
}

// Threads and descriptors of this process, to be found again later.
class Baseline {
public:
    // A thread that has been joined may still be counted for a moment: fewer than before are no fault.
    testing::AssertionResult Returned() const
    {
        if (WaitUntil([this] { return ThreadCount() <= threads_ && OpenDescriptors() == fds_; }, 10s)) {
            return testing::AssertionSuccess();
        }
        return testing::AssertionFailure() << "threads: " << threads_ << ", now " << ThreadCount()
                                           << "; descriptors: " << fds_ << ", now " << OpenDescriptors();
    }

private:
    const size_t threads_ = ThreadCount();
    const size_t fds_ = OpenDescriptors();
};

// The server of this process, not created yet. A test whose hooks or handlers refer to its own variables destroys the
// server before it ends.
class ServerTest : public testing::Test {
protected:
    ServerTest() { EXPECT_EQ(ppcInit(), 0); }
    ~ServerTest() override
    {
        accepts_.Reset();
        closes_.Reset();
        server_.Destroy();
        Inbox::Clear();
    }

    // Returns when the accept thread is ready.
    void Create()
    {
        const uint64_t before = accepts_.Count();
        ASSERT_EQ(server_.CreateServer(kServerId), kOk);
        ASSERT_TRUE(AcceptCallsBecome(before + 1));
    }
    // Connects without waiting for the server.
    static Fd Dial() { return RawConnect(static_cast<int>(kServerId)); }
    void Handle(uint32_t type) { server_.RegPPCSerMsgProcFunc(type, &Inbox::Handler); }

    // A worker whose session is listed.
    Fd Connect()
    {
        const uint64_t before = accepts_.Count();
        Fd worker = RawConnect(static_cast<int>(kServerId));
        EXPECT_TRUE(worker.valid());
        EXPECT_TRUE(AcceptCallsBecome(before + 1));
        return worker;
    }
    // A worker that the server has heard of.
    Fd ConnectAs(uint32_t device, uint32_t pid)
    {
        Fd worker = Connect();
        Say(worker, Report(device, pid));
        return worker;
    }
    // Sends, and waits until the server has done with the message.
    void Say(const Fd& worker, const RawMessage& raw)
    {
        const size_t before = log_.Count("##### [threadName:");
        EXPECT_TRUE(WriteAll(worker, PpcFrame(raw)));
        EXPECT_TRUE(log_.WaitFor("##### [threadName:", 10s, before + 1));
    }
    // Waits until so many receive threads have said that they end, and have ended.
    bool WaitForExits(size_t count)
    {
        return log_.WaitFor("]thread exit", 10s, count) && WaitUntil([this] { return ExitsAreDone(); }, 10s);
    }
    // The worker goes; returns when its receive thread has ended.
    void Finish(Fd& worker)
    {
        const size_t before = log_.Count("]thread exit");
        worker.Reset();
        EXPECT_TRUE(WaitForExits(before + 1));
    }
    // The lines that the function `name` wrote.
    std::vector<std::string> LinesOfFunction(const std::string& name)
    {
        std::vector<std::string> lines = ServerLines(log_);
        const auto isOther = [&](const std::string& line) { return line.find(" " + name + ": ") == std::string::npos; };
        lines.erase(std::remove_if(lines.begin(), lines.end(), isOther), lines.end());
        return lines;
    }
    // The thread id that a receive thread gave when it ended.
    std::string ExitedThreadId(const std::string& thread)
    {
        for (const std::string& line : ServerLines(log_, thread)) {
            const size_t begin = line.find("[tid=");
            const size_t end = line.find("]thread exit");
            if (begin != std::string::npos && end != std::string::npos) {
                return line.substr(begin + 5, end - begin - 5);
            }
        }
        ADD_FAILURE() << thread << " has not ended";
        return "";
    }
    // Lines of the reaper, without the function and the status text that they all have.
    std::vector<std::string> Reap()
    {
        log_.Clear();
        server_.JoinAllPPCRcvThreads();
        const std::string head = "info JoinAllPPCRcvThreads: [GAKPPCSER] JoinAllPPCRcvThreads() ";
        const std::string tail = " | running ok";
        std::vector<std::string> lines = ServerLines(log_);
        for (std::string& line : lines) {
            EXPECT_EQ(line.substr(0, head.size()), head);
            EXPECT_EQ(line.substr(line.size() - tail.size()), tail);
            line = line.substr(head.size(), line.size() - head.size() - tail.size());
        }
        return lines;
    }
    // The thread ids that a reaper's lines name, in order.
    static std::vector<std::string> IdsAfter(const std::string& key, const std::vector<std::string>& lines)
    {
        std::vector<std::string> ids;
        for (const std::string& line : lines) {
            const size_t begin = line.find(key);
            if (begin != std::string::npos) {
                ids.push_back(line.substr(begin + key.size(), line.find(']', begin) - begin - key.size()));
            }
        }
        return ids;
    }

    LogCapture log_;
    CountingHook<DriverSessionAccept> accepts_;
    CountingHook<DriverSessionClose> closes_;
    qel::PpcServer& server_ = qel::PpcServer::GetInstance();

private:
    bool ExitsAreDone() const
    {
        const std::vector<LogLine> lines = log_.Lines();
        return std::none_of(lines.begin(), lines.end(), [](const LogLine& line) {
            return line.text.find("]thread exit") != std::string::npos &&
                   access(("/proc/self/task/" + std::to_string(line.threadId)).c_str(), F_OK) == 0;
        });
    }
    // The session of one accept call is listed before the next call is made.
    bool AcceptCallsBecome(uint64_t count)
    {
        return WaitUntil([&] { return accepts_.Count() >= count; }, 10s);
    }
};

}  // namespace gaktest

#endif
