// A small complete daemon: it starts a compute worker for each device that its arguments name, starts a device's custom
// process when the compute worker asks for it, and shuts everything down in order on SIGINT or SIGTERM.
//
// Handlers run on the library's receive threads and must be quick, so they only put the message into a mailbox and wake
// the main thread by a signal. All decisions are taken there, so the daemon's own data needs no lock.

#include <gakppc/gak_limits.h>
#include <gakppc/ppc.h>
#include <gakppc/ppc_server.h>
#include <gakppc/status_table.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace {

using qel::PPCMessage;
using qel::PpcServer;

constexpr unsigned kShutdownSeconds = 3;
constexpr int kMailSignal = SIGUSR1;

class Mailbox {
public:
    void Put(const PPCMessage& message)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        messages_.push_back(message);
        kill(getpid(), kMailSignal);
    }

    std::deque<PPCMessage> TakeAll()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return std::exchange(messages_, {});
    }

private:
    std::mutex mutex_;
    std::deque<PPCMessage> messages_;
};

Mailbox& TheMailbox()
{
    static Mailbox mailbox;
    return mailbox;
}

void PutIntoMailbox(const PPCMessage& message)
{
    TheMailbox().Put(message);
}

class Daemon {
public:
    explicit Daemon(std::string workerProgram) : workerProgram_(std::move(workerProgram))
    {
        sigemptyset(&signals_);
        for (const int signal : {SIGINT, SIGTERM, SIGCHLD, SIGALRM, kMailSignal}) {
            sigaddset(&signals_, signal);
        }
        // Before the first thread, so that none of these signals reaches any thread but the main one.
        sigprocmask(SIG_BLOCK, &signals_, &formerMask_);
    }

    static bool Serve()
    {
        PpcServer& server = PpcServer::GetInstance();
        for (const auto type : {PPCMessage::START_RSP, PPCMessage::SHUTDOWN_RSP, PPCMessage::HEARTBEAT,
                                PPCMessage::NOTIFY_VEXOINFO, PPCMessage::ABNORMAL, PPCMessage::SOCKET_CLOSE}) {
            server.RegPPCSerMsgProcFunc(type, PutIntoMailbox);
        }
        return ppcInit() == 0 && server.CreateServer(qel::kPpcServerId) == qel::kStatusOk;
    }

    // On the main thread only: the kernel kills the worker when the thread that started it ends.
    void StartWorker(uint32_t device, PPCMessage::ProcessType type)
    {
        const std::string deviceText = std::to_string(device);
        const std::string typeName = qel::PPCMessage_ProcessType_Name(type);
        // With a library in its arguments a worker asks for the custom process.
        const char* const library = type == PPCMessage::COMPUTE ? "libops.so" : nullptr;
        const pid_t pid = fork();
        if (pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);  // no worker outlives its daemon
            setpgid(0, 0);                     // Ctrl-C is for the daemon
            sigprocmask(SIG_SETMASK, &formerMask_, nullptr);
            execl(workerProgram_.c_str(), workerProgram_.c_str(), deviceText.c_str(), typeName.c_str(), library,
                  nullptr);
            _exit(127);
        }
        if (pid == -1) {
            perror("fork");
            return;
        }
        workers_.insert_or_assign(pid, Worker{device, type});
    }

    // Until a signal ends it and all workers have ended. Whether all of them did so in time.
    bool Run()
    {
        while (!IsFinished()) {
            int signal = 0;
            sigwait(&signals_, &signal);
            if (signal == kMailSignal) {
                for (const PPCMessage& message : TheMailbox().TakeAll()) {
                    OnMessage(message);
                }
            } else if (signal == SIGCHLD) {
                Reap();
            } else if (signal == SIGALRM) {
                KillRemaining();
            } else if (!stopping_) {
                Shutdown();
            }
            PpcServer::GetInstance().JoinAllPPCRcvThreads();
            fflush(stdout);
        }
        PpcServer::GetInstance().Destroy();
        return !late_;
    }

private:
    struct Worker {
        uint32_t device;
        PPCMessage::ProcessType type;
        bool living = true;           // not waited for yet
        bool connected = false;       // between its first message and its SOCKET_CLOSE
        bool waitsForCustom = false;  // inside CreateOrFindCustPid
    };

    void OnMessage(const PPCMessage& message)
    {
        const auto pid = static_cast<pid_t>(message.sub_proc_pid());
        printf("daemon: device %u %s pid %d %s\n", message.src_id(),
               qel::PPCMessage_ProcessType_Name(message.proc_type()).c_str(), pid,
               qel::PPCMessage_MsgType_Name(message.type()).c_str());
        const auto found = workers_.find(pid);
        if (found == workers_.end()) {
            return;  // not started here
        }
        Worker& worker = found->second;
        worker.connected = message.type() != PPCMessage::SOCKET_CLOSE;
        if (stopping_) {
            return;
        }
        if (message.type() == PPCMessage::NOTIFY_VEXOINFO) {
            worker.waitsForCustom = true;
            ProvideCustom(worker.device);
        } else if (message.type() == PPCMessage::START_RSP && worker.type == PPCMessage::CUSTOM_COMPUTE) {
            AnswerWaiting(worker.device);
        }
    }

    // A device has at most one custom process.
    void ProvideCustom(uint32_t device)
    {
        const auto custom = std::find_if(workers_.begin(), workers_.end(), [device](const auto& entry) {
            const Worker& worker = entry.second;
            return worker.device == device && worker.type == PPCMessage::CUSTOM_COMPUTE && worker.living;
        });
        if (custom == workers_.end()) {
            StartWorker(device, PPCMessage::CUSTOM_COMPUTE);
        } else if (custom->second.connected) {
            AnswerWaiting(device);
        }
    }

    void AnswerWaiting(uint32_t device)
    {
        for (auto& [pid, worker] : workers_) {
            if (worker.device == device && std::exchange(worker.waitsForCustom, false)) {
                Send(PPCMessage::START_RSP, PPCMessage::CUSTOM_COMPUTE, pid);
            }
        }
    }

    void Reap()
    {
        int status = 0;
        for (pid_t pid = 0; (pid = waitpid(-1, &status, WNOHANG)) > 0;) {
            const bool exited = WIFEXITED(status);
            printf("daemon: pid %d has ended, %s %d\n", pid, exited ? "status" : "signal",
                   exited ? WEXITSTATUS(status) : WTERMSIG(status));
            const auto found = workers_.find(pid);
            if (found != workers_.end()) {
                found->second.living = false;
            }
        }
    }

    // The workers answer with SHUTDOWN_RSP and leave. The order is the last message that they are sent: when one leaves
    // with a message unread, no SOCKET_CLOSE comes.
    void Shutdown()
    {
        stopping_ = true;
        alarm(kShutdownSeconds);
        for (const auto& [pid, worker] : workers_) {
            if (worker.living && !Send(PPCMessage::SHUTDOWN, worker.type, pid)) {
                kill(pid, SIGTERM);  // it has not connected, or its connection has ended
            }
        }
    }

    void KillRemaining()
    {
        late_ = true;
        for (const auto& [pid, worker] : workers_) {
            if (worker.living) {
                kill(pid, SIGKILL);
            }
        }
    }

    // The last message of a worker may come after its process has ended.
    bool IsFinished() const
    {
        return stopping_ && std::none_of(workers_.begin(), workers_.end(), [this](const auto& entry) {
                   return entry.second.living || (entry.second.connected && !late_);
               });
    }

    // A worker is addressed by its device and process id; `about` is the process type that the message speaks of.
    bool Send(PPCMessage::MsgType type, PPCMessage::ProcessType about, pid_t to) const
    {
        PPCMessage message;
        message.set_type(type);
        message.set_src_id(qel::kPpcServerId);
        message.set_dest_id(workers_.at(to).device);
        message.set_proc_type(about);
        message.set_sub_proc_pid(static_cast<uint32_t>(to));
        return PpcServer::GetInstance().SendData(message) == qel::kStatusOk;
    }

    const std::string workerProgram_;
    sigset_t signals_{};
    sigset_t formerMask_{};
    std::map<pid_t, Worker> workers_;  // also those that have ended
    bool stopping_ = false;
    bool late_ = false;
};

}  // namespace

int main(int argc, char** argv)
{
    const std::vector<std::string> devices(argv + std::min(argc, 2), argv + argc);
    const auto isDevice = [](const std::string& text) { return text.size() == 1 && text >= "0" && text <= "3"; };
    if (argc < 3 || !std::all_of(devices.begin(), devices.end(), isDevice)) {
        fprintf(stderr, "Usage: %s WORKER_PROGRAM DEVICE...\n", argv[0]);
        return 2;
    }
    Daemon daemon(argv[1]);
    if (!Daemon::Serve()) {
        fprintf(stderr, "%s: the server cannot be created\n", argv[0]);
        return 1;
    }
    for (const std::string& device : devices) {
        daemon.StartWorker(static_cast<uint32_t>(device[0] - '0'), PPCMessage::COMPUTE);
    }
    return daemon.Run() ? 0 : 1;
}
