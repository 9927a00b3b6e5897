// The daemon and the worker of environment_test.
//
//   environment_program daemon REPORT_FD CONTROL_FD [OPTION]...
//   environment_program worker REPORT_FD CONTROL_FD [OPTION]...
//
// Each reports lines on REPORT_FD. The daemon serves until CONTROL_FD ends. The options narrow what the process has
// left once it is loaded:
//
//   memory=KIB     address space beyond what it uses
//   files=COUNT    descriptors beyond the highest one open
//   threads=COUNT  threads beyond the first (needs a user of its own)
//   user=ID        becomes that user and group
//   root=FOLDER    makes it the root
//   send=gone      sends to a peer that has gone
//   sigpipe=handled  installs a handler that ends the process
//   stuck=call     calls the library on another thread before the conversation, until that ends or its log blocks it
//   refuse=CALL    hands a descriptor that decides on each such system call to CONTROL_FD

#include <grp.h>
#include <seccomp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <future>
#include <string>
#include <thread>

#include "gak.h"
#include "ppc.h"
#include "ppc_client.h"
#include "ppc_server.h"

namespace {

using qel::PPCMessage;

constexpr uint32_t kServerId = 19280;
constexpr uint32_t kDevice = 1;
constexpr GakWaitType kCompute = 1;
constexpr uint32_t kOk = 0x1011000;
constexpr int kSetUpFailed = 3;
constexpr int kSigpipeTaken = 4;
constexpr uint32_t kDeviceOfStuckThread = 2;

int reportFd = -1;
int controlFd = -1;

void Require(bool holds, const char* what)
{
    if (!holds) {
        dprintf(reportFd, "set-up %s: %s\n", what, strerror(errno));
        _exit(kSetUpFailed);
    }
}

// Without /proc, which not every environment has, and by a call that the library does not make.
bool IsOpen(int fd)
{
    struct stat status;
    return fstat(fd, &status) == 0;
}

int HighestDescriptor()
{
    int highest = -1;
    for (int fd = 0; fd < 1024; ++fd) {
        if (IsOpen(fd)) {
            highest = fd;
        }
    }
    return highest;
}

int CountDescriptors()
{
    int count = 0;
    for (int fd = 0; fd < 1024; ++fd) {
        count += IsOpen(fd) ? 1 : 0;
    }
    return count;
}

void Limit(int resource, rlim_t value)
{
    const rlimit limit = {value, value};
    Require(setrlimit(static_cast<__rlimit_resource>(resource), &limit) == 0, "setrlimit");
}

void LimitMemory(uint64_t left)
{
    FILE* file = fopen("/proc/self/statm", "r");
    Require(file != nullptr, "/proc/self/statm");
    char line[128];
    Require(fgets(line, sizeof(line), file) != nullptr, "statm");
    fclose(file);
    const uint64_t pages = strtoull(line, nullptr, 10);
    Require(pages > 0, "statm");
    Limit(RLIMIT_AS, pages * static_cast<uint64_t>(sysconf(_SC_PAGESIZE)) + left * 1024);
}

void BecomeUser(unsigned id)
{
    Require(setgroups(0, nullptr) == 0 && setgid(id) == 0 && setuid(id) == 0, "setuid");
}

void ChangeRoot(const char* folder)
{
    Require(chroot(folder) == 0 && chdir("/") == 0, "chroot");
}

void EndOnSigpipe()
{
    signal(SIGPIPE, [](int) { _exit(kSigpipeTaken); });
}

void SendToAGonePeer()
{
    int ends[2];
    Require(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0, "socketpair");
    close(ends[1]);
    Require(drvPpcSocketSend(ends[0], "gone", 4) == PPC_ERR_SEND, "send to a peer that has gone");
    close(ends[0]);
}

// Set when the other thread is stuck, or done.
std::promise<void> otherThread;
bool startsOtherThread = false;

void CallOnOtherThread(void (*call)())
{
    if (!startsOtherThread) {
        return;
    }
    std::thread([call] {
        pthread_setname_np(pthread_self(), "stuck");
        call();
        otherThread.set_value();
    }).detach();
    otherThread.get_future().wait();
}

void SendDescriptor(int fd)
{
    char byte = 0;
    iovec data = {&byte, 1};
    alignas(cmsghdr) char buffer[CMSG_SPACE(sizeof(int))] = {};
    msghdr message = {};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = buffer;
    message.msg_controllen = sizeof(buffer);
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof(int));
    memcpy(CMSG_DATA(header), &fd, sizeof(int));
    Require(sendmsg(controlFd, &message, 0) == 1, "sendmsg");
}

void AskBeforeEach(const char* call)
{
    const int number = seccomp_syscall_resolve_name(call);
    scmp_filter_ctx filter = seccomp_init(SCMP_ACT_ALLOW);
    Require(number >= 0 && filter != nullptr && seccomp_rule_add(filter, SCMP_ACT_NOTIFY, number, 0) == 0 &&
                seccomp_load(filter) == 0,
            call);
    const int notifications = seccomp_notify_fd(filter);
    SendDescriptor(notifications);
    close(notifications);
    seccomp_release(filter);
    char byte = 0;
    Require(read(controlFd, &byte, 1) == 1, "start");
}

void Apply(const std::string& option)
{
    const size_t equals = option.find('=');
    const std::string name = option.substr(0, equals);
    const char* value = option.c_str() + equals + 1;
    const auto number = static_cast<unsigned>(strtoul(value, nullptr, 10));
    if (name == "memory") {
        LimitMemory(number);
    } else if (name == "files") {
        Limit(RLIMIT_NOFILE, static_cast<rlim_t>(HighestDescriptor()) + 1 + number);
    } else if (name == "threads") {
        Limit(RLIMIT_NPROC, 1 + number);
    } else if (name == "user") {
        BecomeUser(number);
    } else if (name == "root") {
        ChangeRoot(value);
    } else if (name == "sigpipe") {
        EndOnSigpipe();
    } else if (name == "send") {
        SendToAGonePeer();
    } else if (name == "stuck") {
        startsOtherThread = true;
    } else {
        AskBeforeEach(value);
    }
}

// What the daemon has received.
struct Received {
    std::atomic<uint32_t> pid{0};
    std::atomic<int> starts{0};
    std::atomic<int> heartbeats{0};
    std::atomic<int> abnormals{0};
    std::atomic<int> answers{0};
    std::atomic<int> closes{0};
    std::atomic<int> others{0};
    std::atomic<uint32_t> orderSent{0};
};
Received received;

// Whether the message is the one worker's, which is the first that was received.
bool IsOfTheWorker(const PPCMessage& msg)
{
    uint32_t unknown = 0;
    received.pid.compare_exchange_strong(unknown, msg.sub_proc_pid());
    return msg.src_id() == kDevice && msg.proc_type() == PPCMessage::COMPUTE && msg.sub_proc_pid() == received.pid;
}

// An order that could not be sent is sent once more.
void OrderShutdown()
{
    PPCMessage order;
    order.set_type(PPCMessage::SHUTDOWN);
    order.set_dest_id(kDevice);
    order.set_proc_type(PPCMessage::COMPUTE);
    order.set_sub_proc_pid(received.pid);
    received.orderSent = qel::PpcServer::GetInstance().SendData(order);
    if (received.orderSent != kOk) {
        received.orderSent = qel::PpcServer::GetInstance().SendData(order);
    }
}

void Count(const PPCMessage& msg)
{
    if (msg.type() == PPCMessage::SOCKET_CLOSE && msg.src_id() > 3) {
        return;  // a connection that ended without a message
    }
    if (msg.src_id() == kDeviceOfStuckThread) {
        return;
    }
    if (!IsOfTheWorker(msg)) {
        ++received.others;
        return;
    }
    switch (msg.type()) {
        case PPCMessage::START_RSP:
            ++received.starts;
            break;
        case PPCMessage::HEARTBEAT:
            ++received.heartbeats;
            break;
        case PPCMessage::ABNORMAL:
            ++received.abnormals;
            OrderShutdown();
            break;
        case PPCMessage::SHUTDOWN_RSP:
            ++received.answers;
            break;
        case PPCMessage::SOCKET_CLOSE:
            ++received.closes;
            dprintf(reportFd, "closed\n");
            break;
        default:
            ++received.others;
            break;
    }
}

void CallServer()
{
    qel::PpcServer& server = qel::PpcServer::GetInstance();
    PPCMessage order;
    order.set_type(PPCMessage::SHUTDOWN);
    order.set_dest_id(kDeviceOfStuckThread);
    server.SendData(order);
    server.CloseSomeSession(server.GetPpcSession(kDeviceOfStuckThread, 0));
    server.JoinAllPPCRcvThreads();
    server.CreateServer(kServerId);
}

int RunDaemon()
{
    const int before = CountDescriptors();
    const int init = ppcInit();
    qel::PpcServer& server = qel::PpcServer::GetInstance();
    for (uint32_t type = PPCMessage::START_RSP; type <= PPCMessage::SOCKET_CLOSE; ++type) {
        server.RegPPCSerMsgProcFunc(type, Count);
    }
    dprintf(reportFd, "created %d %x\n", init, server.CreateServer(kServerId));
    CallOnOtherThread(&CallServer);
    char byte = 0;
    while (read(controlFd, &byte, 1) > 0) {
    }
    server.JoinAllPPCRcvThreads();
    const uint32_t destroyed = server.Destroy();
    dprintf(reportFd, "received %d %d %d %d %d %d order %x destroyed %x descriptors %d\n", received.starts.load(),
            received.heartbeats.load(), received.abnormals.load(), received.answers.load(), received.closes.load(),
            received.others.load(), received.orderSent.load(), destroyed, CountDescriptors() - before);
    return 0;
}

// A report that could not be sent is tried once more: a call was refused once, or the daemon has ended.
uint32_t ReportAbnormalEnd()
{
    const uint32_t first = GakDestory(kDevice, kCompute);
    return first == 0 ? 0 : GakDestory(kDevice, kCompute);
}

int RunWorker()
{
    const int before = CountDescriptors();
    const int init = ppcInit();
    CallOnOtherThread([] {
        GakHeartbeatSend(kDeviceOfStuckThread, kCompute);
        GakDestory(kDeviceOfStuckThread, kCompute);
    });
    uint32_t waited = 0xFFFFFFFF;
    std::thread waiter;
    try {
        waiter = std::thread([&] { waited = GakWaitForShutdown(kDevice, kCompute); });
    } catch (const std::exception& error) {
        dprintf(reportFd, "no thread of its own: %s\n", error.what());
    }
    uint32_t heartbeats[3];
    for (uint32_t& result : heartbeats) {
        result = GakHeartbeatSend(kDevice, kCompute);
    }
    const uint32_t abnormal = ReportAbnormalEnd();
    if (waiter.joinable()) {
        waiter.join();
    }
    qel::PpcClient::GetInstance()->Destroy();
    dprintf(reportFd, "sent %d %x %x %x %x waited %x descriptors %d\n", init, heartbeats[0], heartbeats[1],
            heartbeats[2], abnormal, waited, CountDescriptors() - before);
    return 0;
}

}  // namespace

// Called by the log.
extern "C" void OnStuck()
{
    otherThread.set_value();
}

int main(int argc, char** argv)
{
    if (argc < 4) {
        return 2;
    }
    reportFd = std::stoi(argv[2]);
    controlFd = std::stoi(argv[3]);
    for (int i = 4; i < argc; ++i) {
        Apply(argv[i]);
    }
    return strcmp(argv[1], "daemon") == 0 ? RunDaemon() : RunWorker();
}
