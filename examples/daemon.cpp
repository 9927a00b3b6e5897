// The smallest complete daemon: it starts the workers that its arguments name, listens to them, starts a device's
// custom process when that device's compute process asks for it, and shuts everything down in order on SIGINT or
// SIGTERM.
//
// The handlers run on the library's receive threads and must be quick, so they only put the message into a mailbox. All
// decisions are taken on the main thread, which therefore needs no lock for its own data.

#include <gakppc/gak_limits.h>
#include <gakppc/ppc.h>
#include <gakppc/ppc_server.h>
#include <gakppc/status_table.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <deque>
#include <iterator>
#include <map>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using qel::PPCMessage;
using qel::PpcServer;

constexpr uint32_t kDevices = 4;
constexpr std::chrono::seconds kShutdownTime{3};

// Carries messages from the receive threads to the main thread, which polls Fd().
class Mailbox {
public:
    void Put(const PPCMessage& msg)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        messages_.push_back(msg);
        eventfd_write(fd_, 1);
    }

    std::deque<PPCMessage> TakeAll()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        eventfd_t ignored = 0;
        eventfd_read(fd_, &ignored);
        return std::exchange(messages_, {});
    }

    int Fd() const { return fd_; }

private:
    const int fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    std::mutex mutex_;
    std::deque<PPCMessage> messages_;
};

Mailbox& TheMailbox()
{
    static Mailbox mailbox;
    return mailbox;
}

void PutIntoMailbox(const PPCMessage& msg)
{
    TheMailbox().Put(msg);
}

using Role = std::pair<uint32_t, PPCMessage::ProcessType>;  // device and process type
using Orders = std::map<Role, std::vector<std::string>>;    // the options of each worker

// "DEVICE TYPE [OPTION]..."
bool ParseOrder(const std::string& text, Orders* orders)
{
    std::istringstream words(text);
    Role role;
    std::string type;
    if (!(words >> role.first >> type) || role.first >= kDevices ||
        !qel::PPCMessage_ProcessType_Parse(type, &role.second) || role.second == PPCMessage::MAXPROCTYPE) {
        return false;
    }
    (*orders)[role].assign(std::istream_iterator<std::string>(words), {});
    return true;
}

class Daemon {
public:
    Daemon(std::string workerProgram, Orders orders)
        : workerProgram_(std::move(workerProgram)), orders_(std::move(orders))
    {
    }

    bool Open();
    bool Run();  // until a signal ends it; whether every worker that was left then ended in order

private:
    struct Worker {
        uint32_t device;
        PPCMessage::ProcessType type;
        bool reported = false;        // START_RSP has come
        bool waitsForCustom = false;  // NOTIFY_VEXOINFO has come and is not answered yet
        bool living = true;           // not reaped yet
        bool connected = false;       // between its first message and its SOCKET_CLOSE
    };
    using Workers = std::map<pid_t, Worker>;

    void StartWorker(const Role& role);
    void OnMessage(const PPCMessage& msg);
    void OnCustomRequest(pid_t asker);
    void OnStarted(pid_t pid);
    void OnSignals();
    void Reap();
    void Shutdown();
    void KillRest();
    bool IsFinished() const;
    bool Send(PPCMessage::MsgType type, PPCMessage::ProcessType about, pid_t to);
    static void Say(pid_t pid, const Worker& worker, const std::string& text);

    const std::string workerProgram_;
    Orders orders_;
    Workers workers_;  // also those that have ended: their last messages may still come
    sigset_t formerMask_{};
    int signals_ = -1;
    std::optional<Clock::time_point> shutdownLimit_;  // set when the shutdown begins
    bool orderly_ = true;
};

bool Daemon::Open()
{
    // Before any thread exists, so that these signals reach signals_ and nobody else.
    sigset_t mask;
    sigemptyset(&mask);
    for (const int signal : {SIGINT, SIGTERM, SIGCHLD, SIGPIPE}) {
        sigaddset(&mask, signal);
    }
    sigprocmask(SIG_BLOCK, &mask, &formerMask_);
    sigdelset(&mask, SIGPIPE);
    signals_ = signalfd(-1, &mask, SFD_CLOEXEC | SFD_NONBLOCK);
    if (signals_ == -1 || TheMailbox().Fd() == -1 || ppcInit() != 0) {
        return false;
    }
    PpcServer& server = PpcServer::GetInstance();
    for (const auto type : {PPCMessage::START_RSP, PPCMessage::SHUTDOWN_RSP, PPCMessage::HEARTBEAT,
                            PPCMessage::NOTIFY_VEXOINFO, PPCMessage::ABNORMAL, PPCMessage::SOCKET_CLOSE}) {
        server.RegPPCSerMsgProcFunc(type, PutIntoMailbox);
    }
    return server.CreateServer(qel::kPpcServerId) == qel::kStatusOk;
}

// Only on the main thread: the kernel kills the worker when the thread that started it ends.
void Daemon::StartWorker(const Role& role)
{
    std::vector<std::string> words{workerProgram_, std::to_string(role.first),
                                   qel::PPCMessage_ProcessType_Name(role.second)};
    const std::vector<std::string>& options = orders_[role];
    words.insert(words.end(), options.begin(), options.end());
    std::vector<char*> arguments;
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);

    const pid_t daemon = getpid();
    const pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);  // no worker outlives its daemon
        setpgid(0, 0);                     // Ctrl-C is for the daemon
        sigprocmask(SIG_SETMASK, &formerMask_, nullptr);
        if (getppid() == daemon) {
            execv(arguments[0], arguments.data());
        }
        _exit(127);
    }
    if (pid == -1) {
        fprintf(stderr, "gak_daemon: fork: %s\n", strerror(errno));
        return;
    }
    const auto entry = workers_.insert_or_assign(pid, Worker{role.first, role.second}).first;
    Say(pid, entry->second, "STARTED");
}

bool Daemon::Run()
{
    for (const auto& [role, options] : orders_) {
        if (role.second != PPCMessage::CUSTOM_COMPUTE) {  // that one is started when it is asked for
            StartWorker(role);
        }
    }
    while (!IsFinished()) {
        pollfd events[] = {{signals_, POLLIN, 0}, {TheMailbox().Fd(), POLLIN, 0}};
        poll(events, 2, 500);
        for (const PPCMessage& msg : TheMailbox().TakeAll()) {
            OnMessage(msg);
        }
        OnSignals();
        PpcServer::GetInstance().JoinAllPPCRcvThreads();
        if (shutdownLimit_ && Clock::now() > *shutdownLimit_) {
            KillRest();
        }
    }
    PpcServer::GetInstance().Destroy();
    return orderly_;
}

void Daemon::OnSignals()
{
    signalfd_siginfo info;
    while (read(signals_, &info, sizeof(info)) == sizeof(info)) {
        if (info.ssi_signo == SIGCHLD) {
            Reap();
        } else if (!shutdownLimit_) {
            Shutdown();
        }
    }
}

void Daemon::OnMessage(const PPCMessage& msg)
{
    const auto pid = static_cast<pid_t>(msg.sub_proc_pid());
    const auto worker = workers_.find(pid);
    if (worker == workers_.end()) {
        printf("gak_daemon: %s from unknown process %d ignored\n", qel::PPCMessage_MsgType_Name(msg.type()).c_str(),
               static_cast<int>(pid));
        return;
    }
    Say(pid, worker->second, qel::PPCMessage_MsgType_Name(msg.type()));
    worker->second.connected = msg.type() != PPCMessage::SOCKET_CLOSE;
    if (msg.type() == PPCMessage::START_RSP) {
        OnStarted(pid);
    } else if (msg.type() == PPCMessage::NOTIFY_VEXOINFO) {
        OnCustomRequest(pid);
    }
}

// A device has at most one custom process. The one who asks is told as soon as it has reported its start.
void Daemon::OnCustomRequest(pid_t asker)
{
    Worker& worker = workers_.at(asker);
    const auto custom = std::find_if(workers_.begin(), workers_.end(), [&](const Workers::value_type& entry) {
        return entry.second.living && entry.second.device == worker.device &&
               entry.second.type == PPCMessage::CUSTOM_COMPUTE;
    });
    if (custom != workers_.end() && custom->second.reported) {
        Send(PPCMessage::START_RSP, PPCMessage::CUSTOM_COMPUTE, asker);
        return;
    }
    worker.waitsForCustom = true;
    if (custom == workers_.end() && !shutdownLimit_) {
        StartWorker({worker.device, PPCMessage::CUSTOM_COMPUTE});
    }
}

void Daemon::OnStarted(pid_t pid)
{
    Worker& started = workers_.at(pid);
    started.reported = true;
    if (started.type != PPCMessage::CUSTOM_COMPUTE) {
        return;
    }
    for (auto& [asker, worker] : workers_) {
        if (worker.device == started.device && worker.waitsForCustom) {
            worker.waitsForCustom = false;
            Send(PPCMessage::START_RSP, PPCMessage::CUSTOM_COMPUTE, asker);
        }
    }
}

void Daemon::Reap()
{
    int status = 0;
    for (pid_t pid = 0; (pid = waitpid(-1, &status, WNOHANG)) > 0;) {
        const auto found = workers_.find(pid);
        if (found == workers_.end()) {
            continue;  // a child of the program that this one has replaced
        }
        Worker& worker = found->second;
        worker.living = false;
        Say(pid, worker,
            WIFEXITED(status) ? "EXIT " + std::to_string(WEXITSTATUS(status))
                              : "SIGNAL " + std::to_string(WTERMSIG(status)));
        const bool asToldTo = WIFEXITED(status) ? WEXITSTATUS(status) == 0 : WTERMSIG(status) == SIGTERM;
        orderly_ = orderly_ && (asToldTo || !shutdownLimit_);
    }
}

// The workers answer with SHUTDOWN_RSP and end; Run goes on until the last one is gone.
void Daemon::Shutdown()
{
    shutdownLimit_ = Clock::now() + kShutdownTime;
    for (const auto& [pid, worker] : workers_) {
        if (worker.living && !Send(PPCMessage::SHUTDOWN, worker.type, pid)) {
            kill(pid, SIGTERM);  // it has not connected, or no longer listens
        }
    }
}

void Daemon::KillRest()
{
    for (const auto& [pid, worker] : workers_) {
        if (worker.living) {
            kill(pid, SIGKILL);
        }
    }
}

// A worker is addressed by its device and process id. `about` is the process type that the message speaks of.
bool Daemon::Send(PPCMessage::MsgType type, PPCMessage::ProcessType about, pid_t to)
{
    const Worker& worker = workers_.at(to);
    PPCMessage msg;
    msg.set_type(type);
    msg.set_src_id(qel::kPpcServerId);
    msg.set_dest_id(worker.device);
    msg.set_proc_type(about);
    msg.set_sub_proc_pid(static_cast<uint32_t>(to));
    const bool sent = PpcServer::GetInstance().SendData(msg) == qel::kStatusOk;
    Say(to, worker, (sent ? "SENT " : "UNREACHABLE ") + qel::PPCMessage_MsgType_Name(type));
    return sent;
}

// A worker that has ended is waited for until its connection has ended too: its SHUTDOWN_RSP may still be on the way.
bool Daemon::IsFinished() const
{
    if (!shutdownLimit_) {
        return false;
    }
    const bool late = Clock::now() > *shutdownLimit_;
    return std::none_of(workers_.begin(), workers_.end(), [late](const Workers::value_type& entry) {
        return entry.second.living || (entry.second.connected && !late);
    });
}

void Daemon::Say(pid_t pid, const Worker& worker, const std::string& text)
{
    printf("gak_daemon: device %u %s pid %d %s\n", worker.device, qel::PPCMessage_ProcessType_Name(worker.type).c_str(),
           static_cast<int>(pid), text.c_str());
}

}  // namespace

int main(int argc, char** argv)
{
    Orders orders;
    bool good = argc > 2;
    for (int i = 2; i < argc; ++i) {
        good = ParseOrder(argv[i], &orders) && good;
    }
    if (!good) {
        fprintf(stderr,
                "Usage: %s WORKER_PROGRAM \"DEVICE TYPE [OPTION...]\"...\n"
                "Starts one worker for each quoted argument, which the worker program gets word by word;\n"
                "those of type CUSTOM_COMPUTE only when their device's compute process asks for them.\n",
                argv[0]);
        return 2;
    }
    setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);  // whole lines, also into a pipe
    Daemon daemon(argv[1], std::move(orders));
    if (!daemon.Open()) {
        fprintf(stderr, "%s: the server cannot be created\n", argv[0]);
        return 1;
    }
    return daemon.Run() ? 0 : 1;
}
