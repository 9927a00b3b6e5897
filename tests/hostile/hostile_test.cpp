// Peers that do what no worker should, and a system whose resources are exhausted, while a conforming worker goes on
// sending heartbeats.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <system_error>
#include <vector>

#include "fault.h"
#include "hostile_fixture.h"
#include "log_capture.h"

namespace gaktest {
namespace {

using gaktest::Bytes;
using gaktest::CountingHook;
using gaktest::ExpectEof;
using gaktest::PpcFrame;
using gaktest::WriteAll;

const Bytes kOneGibibyteAnnounced = {0x40, 0, 0, 0};

PPCMessage OrderTo(uint32_t device, uint32_t pid)
{
    PPCMessage order;
    order.set_type(PPCMessage::SHUTDOWN);
    order.set_dest_id(device);
    order.set_sub_proc_pid(pid);
    return order;
}

// ---- Exhausted resources ----

// Takes every descriptor that this process may still open.
class NoDescriptorsLeft {
public:
    NoDescriptorsLeft()
    {
        for (;;) {
            Fd fd(open("/dev/null", O_RDONLY | O_CLOEXEC));
            if (!fd.valid()) {
                break;
            }
            taken_.push_back(std::move(fd));
        }
        EXPECT_EQ(errno, EMFILE);
    }

private:
    std::vector<Fd> taken_;
};

// Processor time of the accept thread. Its file is opened early: later there is no descriptor left for it.
class AcceptThreadClock {
public:
    AcceptThreadClock()
    {
        for (const std::string& id : gaktest::ThreadIds("ppc_srv_accept")) {
            file_.Reset(open(("/proc/self/task/" + id + "/schedstat").c_str(), O_RDONLY | O_CLOEXEC));
        }
        EXPECT_TRUE(file_.valid());
    }
    std::chrono::nanoseconds Spent() const
    {
        char text[64] = "";
        EXPECT_GT(pread(file_.get(), text, sizeof(text) - 1, 0), 0);
        return std::chrono::nanoseconds(std::strtoull(text, nullptr, 10));
    }

private:
    Fd file_;
};

// Workers that have their sockets already: connecting takes no descriptor.
std::vector<Fd> UnconnectedSockets(size_t count)
{
    std::vector<Fd> sockets;
    for (size_t number = 0; number < count; ++number) {
        sockets.emplace_back(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    }
    return sockets;
}

bool ConnectSocket(const Fd& fd)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, gaktest::SocketPath(kServerId).c_str(), sizeof(address.sun_path) - 1);
    return connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
}

size_t LinesOfAcceptThread(const gaktest::LogCapture& log)
{
    const std::vector<gaktest::LogLine> lines = log.Lines();
    return static_cast<size_t>(std::count_if(
        lines.begin(), lines.end(), [](const gaktest::LogLine& line) { return line.threadName == "ppc_srv_accept"; }));
}

TEST_F(HostileTest, DescriptorLimitCostsLittleAndEndsWithIt)
{
    const std::vector<Fd> clients = UnconnectedSockets(5);
    const AcceptThreadClock acceptThread;
    {
        // The first look of a sanitizer at an object takes descriptors. What is logged of a message looks at it.
        const gaktest::LogCapture log;
        Heartbeats::StartMeasuring();
        ASSERT_TRUE(Heartbeats::Arrive(2));
    }
    const uint32_t startedBefore = started_;
    auto exhausted = std::make_unique<NoDescriptorsLeft>();
    // The accept in flight had taken its descriptor before it began to wait: the first client is still served.
    const uint32_t waiting = startedBefore + 1;
    const CountingHook<gaktest::calls::Accept> accepts;
    const CountingHook<gaktest::calls::Poll> pauses;  // of 10 ms each
    {
        gaktest::LogCapture log;
        for (const Fd& client : clients) {
            ASSERT_TRUE(ConnectSocket(client));
            ASSERT_TRUE(WriteAll(client, PpcFrame({0, 0, kServerId, 0, 1, 0, {}})));
        }
        ASSERT_TRUE(log.WaitFor("accept ppc socket error: Too many open files", kWait, 2));
        Heartbeats::StartMeasuring();
        const auto spentBefore = acceptThread.Spent();
        const uint64_t pausesBefore = pauses.Count();
        EXPECT_TRUE(Heartbeats::StayQuick());
        const uint64_t attempts = pauses.Count() - pausesBefore;
        const std::chrono::duration<double, std::micro> spent = acceptThread.Spent() - spentBefore;
        const size_t lines = LinesOfAcceptThread(log);
        printf("%.1f us of processor time for each of %llu attempts\n", spent.count() / static_cast<double>(attempts),
               static_cast<unsigned long long>(attempts));
        EXPECT_GT(attempts, 0u);
        EXPECT_LE(accepts.Count(), pauses.Count() + 1) << "a pause after each attempt, and so a hundred a second";
        EXPECT_LE(lines, 2 * accepts.Count());
        if (!kUnderSanitizer) {
            EXPECT_LE(spent.count(), 500.0 * static_cast<double>(attempts + 1)) << "more than 5 % of a pause";
        }
        EXPECT_EQ(started_, waiting);
    }
    exhausted.reset();
    const uint64_t pausesBefore = pauses.Count();
    EXPECT_TRUE(WaitUntil([&] { return started_ == startedBefore + clients.size(); }, kWait));
    EXPECT_LE(pauses.Count(), pausesBefore + 1) << "only the attempt in flight may have found no descriptor";
    ExpectService();
}

TEST_F(HostileTest, DescriptorLimitDoesNotDelayDestroy)
{
    using gaktest::calls::Poll;
    CountingHook<gaktest::calls::Accept> accepts;
    accepts.FailFrom(1, -1, EMFILE);
    CountingHook<Poll> pauses;
    pauses.OnCall([](uint64_t, pollfd* wanted, nfds_t count, int) -> std::optional<int> {
        return CountingHook<Poll>::Real(wanted, count, -1);  // only Destroy can end this pause
    });
    const Fd client = Connect();  // ends the accept in flight
    ASSERT_TRUE(WaitUntil([&] { return pauses.Count() == 1; }, kWait));
    heartbeats_->Stop();
    EXPECT_EQ(server_.Destroy(), kOk);
}

TEST_F(HostileTest, ThreadStartsThatFailEndThatSessionOnly)
{
    {
        CountingHook<gaktest::calls::StdThreadCreate> threads;
        threads.FailFrom(1, EAGAIN, 0);
        ExpectAllEnd(ConnectMany(50));
        EXPECT_GE(threads.Count(), 50u);
        EXPECT_TRUE(Heartbeats::StayQuick());
    }
    EXPECT_EQ(ReceiveThreads(), 1u);
    ExpectService();
}

// ---- What peers send ----

TEST_F(HostileTest, AnnouncedGibibytesTakeNoMemory)
{
    static std::atomic<size_t> allocated{0};
    CountingHook<gaktest::calls::Malloc> allocations;
    allocations.OnCall([](uint64_t, size_t size) -> std::optional<void*> {
        allocated += size == (1U << 30) ? 1 : 0;
        return std::nullopt;
    });
    // Sanitizers and emulators fill memory of their own for what is allocated.
    const size_t count = kMeasuresAreOwn ? 50 : 2;
    const size_t before = ResidentKiB();
    const std::vector<Fd> peers = ConnectMany(count);
    for (const Fd& peer : peers) {
        ASSERT_TRUE(WriteAll(peer, kOneGibibyteAnnounced));
    }
    ASSERT_TRUE(WaitUntil([&] { return allocated == count; }, kWait)) << allocated;
    EXPECT_TRUE(Heartbeats::StayQuick());
    const size_t grown = ResidentKiB() - before;
    printf("%zu KiB more are resident\n", grown);
    if (kMeasuresAreOwn) {
        EXPECT_LT(grown, 20U * 1024);
    }
    ExpectService();
}

TEST_F(HostileTest, PartOfALengthFieldEndsTheSession)
{
    std::vector<Fd> peers = ConnectMany(60);
    for (size_t number = 0; number < peers.size(); ++number) {
        ASSERT_TRUE(WriteAll(peers[number], Bytes(1 + number % 3, 0)));
    }
    ExpectAllEnd(peers);
    EXPECT_TRUE(Heartbeats::StayQuick());
    EXPECT_TRUE(WaitUntil([] { return ReceiveThreads() == 1; }, kWait)) << ReceiveThreads();
    ExpectService();
}

TEST_F(HostileTest, FramesWithoutPayloadEndTheSession)
{
    std::vector<Fd> peers = ConnectMany(60);
    for (const Fd& peer : peers) {
        ASSERT_TRUE(WriteAll(peer, Bytes(400, 0)));
    }
    ExpectAllEnd(peers);
    EXPECT_TRUE(Heartbeats::StayQuick());
    ExpectService();
}

TEST_F(HostileTest, RejectedPeersCostADescriptorUntilDestroy)
{
    const std::vector<gaktest::RawMessage> rejected = {
        {0, 4, kServerId, 0, 1, 0, {}}, {0, 0, kServerId, 3, 1, 0, {}}, {5, 0, kServerId, 0, 1, 0, {}}};
    std::vector<Fd> peers = ConnectMany(200);
    for (size_t number = 0; number < peers.size(); ++number) {
        ASSERT_TRUE(WriteAll(peers[number], PpcFrame(rejected[number % rejected.size()])));
    }
    EXPECT_TRUE(WaitUntil([] { return ReceiveThreads() == 1; }, kWait)) << ReceiveThreads();
    EXPECT_TRUE(Heartbeats::StayQuick());
    for (const Fd& peer : peers) {
        EXPECT_FALSE(gaktest::WaitReadable(peer, 0s));
    }
    ExpectService();
    ASSERT_TRUE(WaitUntil([] { return ReceiveThreads() == 1; }, kWait)) << ReceiveThreads();
    const size_t open = gaktest::OpenDescriptors();
    heartbeats_->Stop();
    server_.Destroy();
    ExpectAllEnd(peers);
    // All of theirs, the listening one and the conforming worker's.
    EXPECT_TRUE(WaitUntil([&] { return gaktest::OpenDescriptors() == open - peers.size() - 2; }, kWait))
        << open << " before, " << gaktest::OpenDescriptors() << " after";
}

TEST_F(HostileTest, GarbageEndsAtMostItsOwnSession)
{
    std::mt19937 random(20260101);
    for (int number = 0; number < 200; ++number) {
        Bytes garbage(1 + random() % 4096);
        std::generate(garbage.begin(), garbage.end(), [&] { return static_cast<uint8_t>(random()); });
        switch (number % 3) {
            case 0:  // a length that fits, garbage inside
                garbage = gaktest::FrameBytes(garbage);
                break;
            case 1:  // likewise, and the encoded length fits as well
                garbage.insert(garbage.begin(),
                               {static_cast<uint8_t>(garbage.size()), static_cast<uint8_t>(garbage.size() >> 8), 0, 0});
                garbage = gaktest::FrameBytes(garbage);
                break;
            default:  // a length that is garbage itself
                garbage[0] = kUnderSanitizer ? 0xFF : garbage[0];
                break;
        }
        const Fd peer = Connect();
        WriteAll(peer, garbage);  // the daemon may have closed it before the last byte
    }
    EXPECT_TRUE(WaitUntil([] { return ReceiveThreads() == 1; }, kWait)) << ReceiveThreads();
    EXPECT_TRUE(Heartbeats::StayQuick());
    ExpectService();
}

// ---- What peers do not do ----

TEST_F(HostileTest, IdleSessionsTakeLittleMemory)
{
    constexpr size_t kSessions = 1000;
    ExpectService();  // what the first session of a process takes is not a session's
    ASSERT_TRUE(WaitUntil([] { return ReceiveThreads() == 1; }, kWait));
    const size_t before = ResidentKiB();
    const std::vector<Fd> peers = ConnectMany(kSessions);
    ASSERT_TRUE(WaitUntil([] { return ReceiveThreads() == kSessions + 1; }, kWait)) << ReceiveThreads();
    const double silent = static_cast<double>(ResidentKiB() - before) / kSessions;
    Heartbeats::StartMeasuring();
    EXPECT_TRUE(Heartbeats::StayQuick());
    const uint32_t startedBefore = started_;
    for (size_t number = 0; number < kSessions; ++number) {
        ASSERT_TRUE(WriteAll(peers[number], PpcFrame({0, 1, kServerId, 0, static_cast<uint32_t>(number), 0, {}})));
    }
    ASSERT_TRUE(WaitUntil([&] { return started_ == startedBefore + kSessions; }, kWait));
    const double known = static_cast<double>(ResidentKiB() - before) / kSessions;
    printf("%.1f KiB for a session that has said nothing, %.1f KiB for one that has\n", silent, known);
    if (kMeasuresAreOwn) {
        EXPECT_LE(silent, 16.0);
        EXPECT_LE(known, 16.0);
    }
}

TEST_F(HostileTest, WorkerThatDoesNotReadBlocksItsSenderOnly)
{
    const Fd worker = ConnectAs(1, 5);
    CountingHook<gaktest::calls::Writev> writes;
    std::atomic<uint32_t> status{0};
    std::thread sender([&] {
        PPCMessage order = OrderTo(1, 5);
        order.mutable_lib_names()->add_lib_name(std::string(8U << 20, 'x'));
        status = server_.SendData(order);
    });
    EXPECT_TRUE(WaitUntil([&] { return writes.Count() == 1; }, kWait));
    Heartbeats::StartMeasuring();
    EXPECT_TRUE(Heartbeats::StayQuick());
    ExpectService();
    EXPECT_EQ(status, 0u) << "the sender has returned";
    server_.CloseSomeSession(server_.GetPpcSession(1, 5));
    sender.join();
    EXPECT_EQ(status, 0x1093037u);
}

// ---- A second server ----

// A daemon in a process of its own that takes the socket when it is told to. Forked before this process has threads.
class CompetingServer {
protected:
    CompetingServer()
        : ends_(gaktest::SocketPair()), process_([this]() -> int {
              char byte = 0;
              if (read(ends_.second.get(), &byte, 1) != 1) {
                  return 1;
              }
              qel::PpcServer& server = qel::PpcServer::GetInstance();
              server.RegPPCSerMsgProcFunc(PPCMessage::START_RSP, [](const PPCMessage& msg) {
                  qel::PpcServer::GetInstance().SendData(OrderTo(msg.src_id(), msg.sub_proc_pid()));
              });
              if (ppcInit() != 0 || server.CreateServer(kServerId) != kOk || write(ends_.second.get(), "r", 1) != 1) {
                  return 2;
              }
              for (;;) {
                  pause();
              }
          })
    {
    }
    void TakeTheSocket()
    {
        char byte = 0;
        ASSERT_EQ(write(ends_.first.get(), "g", 1), 1);
        ASSERT_TRUE(gaktest::WaitReadable(ends_.first, kWait));
        ASSERT_EQ(read(ends_.first.get(), &byte, 1), 1);
    }

    std::pair<Fd, Fd> ends_;
    gaktest::ChildProcess process_;
};

class SecondServerTest : protected CompetingServer, public HostileTest {};

TEST_F(SecondServerTest, TakesNewWorkersAndLeavesTheSessionsOfTheFirst)
{
    const Fd oldWorker = ConnectAs(1, 5);
    TakeTheSocket();
    Heartbeats::StartMeasuring();
    const uint32_t startedBefore = started_;
    const Fd newWorker = Connect();
    ASSERT_TRUE(WriteAll(newWorker, PpcFrame({0, 2, kServerId, 0, 6, 0, {}})));
    EXPECT_EQ(gaktest::ReadPpcFrame(newWorker, kWait), (gaktest::RawMessage{5, 0, 2, 0, 6, 0, {}}));
    EXPECT_EQ(started_, startedBefore);
    EXPECT_EQ(server_.SendData(OrderTo(1, 5)), kOk);
    EXPECT_EQ(gaktest::ReadPpcFrame(oldWorker, kWait), (gaktest::RawMessage{5, 0, 1, 0, 5, 0, {}}));

    process_.Kill(SIGKILL);
    EXPECT_TRUE(process_.WaitExit(kWait).KilledBy(SIGKILL));
    EXPECT_TRUE(ExpectEof(newWorker, kWait));
    EXPECT_FALSE(gaktest::RawConnect(kServerId).valid());
    EXPECT_TRUE(Heartbeats::StayQuick());

    heartbeats_->Stop();
    server_.Destroy();
    server_.RegPPCSerMsgProcFunc(PPCMessage::START_RSP, &NoteStart);
    ASSERT_EQ(server_.CreateServer(kServerId), kOk);
    ExpectService();
}

// ---- Many senders on one session ----

// A message whose frame has exactly `size` bytes, and the frame.
struct SizedMessage {
    SizedMessage(uint32_t device, uint32_t pid, uint32_t sender, size_t size)
    {
        gaktest::RawMessage raw{5, 0, device, 0, pid, sender, std::vector<std::string>{""}};
        raw.lib_names->front().assign(size - PpcFrame(raw).size(), static_cast<char>('a' + sender % 26));
        raw.lib_names->front().resize(raw.lib_names->front().size() - (PpcFrame(raw).size() - size));
        frame = PpcFrame(raw);
        message = OrderTo(device, pid);
        message.set_host_pid(sender);
        message.mutable_lib_names()->add_lib_name(raw.lib_names->front());
    }

    PPCMessage message;
    Bytes frame;
};

// Which of the frames comes next from the socket; empty when it is none of them.
std::optional<size_t> NextFrame(const Fd& socket, const std::vector<SizedMessage>& messages, Bytes& buffer)
{
    const auto receive = [&](size_t from, size_t count) {
        buffer.resize(from + count);
        return recv(socket.get(), buffer.data() + from, count, MSG_WAITALL) == static_cast<ssize_t>(count);
    };
    if (!receive(0, 4)) {
        return std::nullopt;
    }
    const size_t length = size_t{buffer[0]} << 24 | size_t{buffer[1]} << 16 | size_t{buffer[2]} << 8 | buffer[3];
    if (length > (2U << 20) || !receive(4, length)) {
        return std::nullopt;
    }
    for (size_t sender = 0; sender < messages.size(); ++sender) {
        if (buffer == messages[sender].frame) {
            return sender;
        }
    }
    return std::nullopt;
}

TEST_F(HostileTest, FramesOfManySendersAreNotDamaged)
{
    constexpr size_t kSmall = 40;
    constexpr size_t kLarge = 1U << 20;
    const Fd worker = ConnectAs(1, 5);
    std::vector<SizedMessage> messages;
    const std::vector<size_t> counts = {4500, 4500, 500, 500};
    for (uint32_t sender = 0; sender < counts.size(); ++sender) {
        messages.emplace_back(1, 5, sender + 1, sender < 2 ? kSmall : kLarge);
        ASSERT_EQ(messages.back().frame.size(), sender < 2 ? kSmall : kLarge);
    }
    std::atomic<size_t> failed{0};
    std::vector<std::thread> senders;
    for (size_t sender = 0; sender < counts.size(); ++sender) {
        senders.emplace_back([&, sender] {
            for (size_t number = 0; number < counts[sender]; ++number) {
                failed += server_.SendData(messages[sender].message) == kOk ? 0 : 1;
            }
        });
    }
    std::vector<size_t> received(counts.size());
    Bytes buffer;
    size_t undamaged = 0;
    while (undamaged < 10000) {
        const std::optional<size_t> sender = NextFrame(worker, messages, buffer);
        if (!sender.has_value()) {
            ADD_FAILURE() << "frame " << undamaged << " is damaged";
            break;
        }
        ++received[*sender];
        ++undamaged;
    }
    shutdown(worker.get(), SHUT_RDWR);  // senders that are left fail
    for (std::thread& sender : senders) {
        sender.join();
    }
    EXPECT_EQ(received, counts);
    EXPECT_EQ(failed, 0u);
    EXPECT_TRUE(Heartbeats::StayQuick());
}

}  // namespace
}  // namespace gaktest
