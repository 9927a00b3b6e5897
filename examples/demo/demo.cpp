// The demonstration: starts the example daemon, which starts twelve workers, watches what they print, interferes twice
// and at the end says which steps happened. Exit status 0 means all of them.
//
// No process is left behind: workers die with the daemon, the daemon is told to stop when this program dies, and this
// program adopts orphans and waits until it has no child left.

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "board.h"
#include "screen.h"

namespace {

using demo::Board;
using demo::Event;
using demo::Format;
using demo::Row;
using Clock = std::chrono::steady_clock;

constexpr char kSocket[] = "/home/KrovaUser/qel_ppc/sock_server_19280";
constexpr char kHeartbeatInterval[] = "500";  // milliseconds
constexpr unsigned kHeartbeats = 3;
constexpr unsigned kWorkers = 12;
constexpr unsigned kLeftAtShutdown = kWorkers - 2;  // without the abnormal one and the killed one
constexpr unsigned kAbnormalDevice = 3;             // its ZOLT worker reports ABNORMAL
constexpr unsigned kKilledDevice = 2;               // its ZOLT worker is killed
constexpr double kStopTime = 4.0;                   // seconds for the daemon to end, more than it gives its workers
constexpr double kKillTime = 1.0;

struct Options {
    std::string daemon;
    std::string worker;
    std::string log;         // where the programs' device log goes; empty: standard error
    double timeLimit = 9.0;  // seconds until the shutdown begins at the latest
};

struct Step {
    std::string text;
    unsigned want;
    std::function<unsigned()> have;

    bool Done() const { return have() == want; }
};

class Conductor {
public:
    explicit Conductor(Options options) : options_(std::move(options)) {}

    int Run();

private:
    bool Prepare();
    void DefineSteps();
    bool StartDaemon();
    void Play();
    void Stop();
    int Result();

    bool WaitForSteps(size_t first, size_t last);
    template <typename Condition>
    void PumpUntil(double deadline, const Condition& condition);
    void Pump(double seconds);
    void ReadEvents();
    void ReadSignals();
    void Reap();
    void OnLine(const std::string& line);
    bool SomethingWentWrong() const;
    double Now() const { return std::chrono::duration<double>(Clock::now() - begin_).count(); }

    const Options options_;
    const Clock::time_point begin_ = Clock::now();
    Board board_;
    demo::Screen screen_;
    std::vector<Step> steps_;
    sigset_t formerMask_{};
    int signals_ = -1;
    int events_ = -1;  // the read end of the pipe that the daemon and the workers print into; -1 after its end
    std::string unread_;
    pid_t daemon_ = -1;
    bool daemonRuns_ = false;
    bool daemonExited0_ = false;
    bool childless_ = false;
    bool sawSocket_ = false;
    double killedAt_ = 0;
    int interruptedBy_ = 0;
};

bool Conductor::Prepare()
{
    sigset_t mask;
    sigemptyset(&mask);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGCHLD, SIGPIPE}) {
        sigaddset(&mask, signal);
    }
    sigprocmask(SIG_BLOCK, &mask, &formerMask_);
    sigdelset(&mask, SIGPIPE);
    signals_ = signalfd(-1, &mask, SFD_CLOEXEC | SFD_NONBLOCK);
    if (signals_ == -1 || prctl(PR_SET_CHILD_SUBREAPER, 1) != 0) {
        fprintf(stderr, "gak_demo: %s\n", strerror(errno));
        return false;
    }
    if (access(kSocket, F_OK) == 0) {
        fprintf(stderr, "gak_demo: %s is in use; run scripts/demo, which has a /home of its own\n", kSocket);
        return false;
    }
    return true;
}

void Conductor::DefineSteps()
{
    const auto count = [this](const std::string& what) {
        return [this, what] { return board_.Count([&](const Row& row) { return row.Heard(what); }); };
    };
    const auto ended = [this](unsigned device, const char* what, const char* end) {
        return [=]() -> unsigned {
            const Row& row = board_.At(device, "ZOLT");
            return row.Heard(what) && row.end == end ? 1 : 0;
        };
    };
    steps_ = {
        {Format("the daemon listens on %s", kSocket), 1, [this]() -> unsigned { return sawSocket_ ? 1 : 0; }},
        {"START_RSP from each worker", kWorkers, count("START_RSP")},
        {Format("%u heartbeats and more from each worker", kHeartbeats), kWorkers,
         [this] { return board_.Count([](const Row& row) { return row.heartbeats >= kHeartbeats; }); }},
        {"NOTIFY_VEXOINFO from each compute worker", 4, count("NOTIFY_VEXOINFO")},
        {"its custom worker is started and it is told so", 4, count("SENT START_RSP")},
        {"its call of CreateOrFindCustPid returns", 4, count("CUSTOM_READY")},
        {Format("ABNORMAL from device %u ZOLT, which leaves with status 3", kAbnormalDevice), 1,
         ended(kAbnormalDevice, "ABNORMAL", "exit 3")},
        {Format("SOCKET_CLOSE of device %u ZOLT, which is killed with SIGKILL", kKilledDevice), 1,
         ended(kKilledDevice, "SOCKET_CLOSE", "signal 9")},
        {"the others go on: another heartbeat from each", kLeftAtShutdown,
         [this] {
             return board_.Count([this](const Row& row) {
                 return killedAt_ > 0 && row.heartbeats != 0 && row.lastHeartbeat > killedAt_;
             });
         }},
        {"SHUTDOWN to each living worker", kLeftAtShutdown, count("SENT SHUTDOWN")},
        {"SHUTDOWN_RSP from each of them", kLeftAtShutdown, count("SHUTDOWN_RSP")},
        {"each of them leaves with status 0", kLeftAtShutdown, count("EXIT 0")},
        {"the daemon leaves with status 0", 1, [this]() -> unsigned { return daemonExited0_ ? 1 : 0; }},
        {"no process is left", 1, [this]() -> unsigned { return childless_ ? 1 : 0; }},
    };
}

bool Conductor::StartDaemon()
{
    std::vector<std::string> words{options_.daemon, options_.worker};
    for (const Row& row : board_.Rows()) {
        std::string order = Format("%u %s --interval %s", row.device, row.type.c_str(), kHeartbeatInterval);
        if (row.type == "COMPUTE") {
            order += " --custom libops_a.so libops_b.so";
        } else if (row.type == "ZOLT" && row.device == kAbnormalDevice) {
            order += " --abnormal";
        }
        words.push_back(order);
    }
    std::vector<char*> arguments;
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);

    int ends[2] = {-1, -1};
    const int log = options_.log.empty() ? STDERR_FILENO
                                         : open(options_.log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (log == -1 || pipe2(ends, O_CLOEXEC) != 0) {
        fprintf(stderr, "gak_demo: %s: %s\n", options_.log.c_str(), strerror(errno));
        return false;
    }
    const pid_t self = getpid();
    daemon_ = fork();
    if (daemon_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGTERM);  // its orderly stop
        setpgid(0, 0);                     // Ctrl-C is for the demonstration
        dup2(ends[1], STDOUT_FILENO);
        dup2(log, STDERR_FILENO);
        sigprocmask(SIG_SETMASK, &formerMask_, nullptr);
        if (getppid() == self) {
            execv(arguments[0], arguments.data());
        }
        _exit(127);
    }
    close(ends[1]);
    if (log != STDERR_FILENO) {
        close(log);
    }
    events_ = ends[0];
    daemonRuns_ = daemon_ != -1;
    return daemonRuns_;
}

void Conductor::OnLine(const std::string& line)
{
    const auto event = demo::ParseEvent(line);
    const double now = Now();
    if (event && board_.Apply(*event, now)) {
        screen_.Change(*event, now, board_);
    } else if (!screen_.IsLive()) {
        printf("  %5.2f s  %s\n", now, line.c_str());
    }
}

void Conductor::ReadEvents()
{
    char buffer[4096];
    const ssize_t got = read(events_, buffer, sizeof(buffer));
    if (got <= 0) {
        close(events_);
        events_ = -1;
        return;
    }
    unread_.append(buffer, static_cast<size_t>(got));
    for (size_t end = 0; (end = unread_.find('\n')) != std::string::npos; unread_.erase(0, end + 1)) {
        OnLine(unread_.substr(0, end));
    }
}

void Conductor::ReadSignals()
{
    signalfd_siginfo info;
    while (read(signals_, &info, sizeof(info)) == sizeof(info)) {
        if (info.ssi_signo != SIGCHLD) {
            interruptedBy_ = static_cast<int>(info.ssi_signo);
        }
    }
    Reap();
}

void Conductor::Reap()
{
    int status = 0;
    pid_t pid = 0;
    while ((pid = waitpid(-1, &status, WNOHANG)) > 0) {
        if (pid == daemon_) {
            daemonRuns_ = false;
            daemonExited0_ = WIFEXITED(status) && WEXITSTATUS(status) == 0;
        }
    }
    childless_ = pid == -1 && errno == ECHILD;
}

// Takes in what there is, or waits for it for so long.
void Conductor::Pump(double seconds)
{
    pollfd sources[] = {{events_, POLLIN, 0}, {signals_, POLLIN, 0}};
    if (poll(sources, 2, static_cast<int>(seconds * 1000) + 1) <= 0) {
        return;
    }
    if (sources[0].revents != 0) {
        ReadEvents();
    }
    if (sources[1].revents != 0) {
        ReadSignals();
    }
}

template <typename Condition>
void Conductor::PumpUntil(double deadline, const Condition& condition)
{
    while (!condition() && Now() < deadline) {
        Pump(deadline - Now());
    }
}

// There is no use in waiting on.
bool Conductor::SomethingWentWrong() const
{
    const auto unexpected = [](const Row& row) {
        const bool mayEnd = row.type == "ZOLT" && (row.device == kAbnormalDevice || row.device == kKilledDevice);
        return !row.end.empty() && !mayEnd;
    };
    return interruptedBy_ != 0 || !daemonRuns_ || board_.Count(unexpected) != 0;
}

bool Conductor::WaitForSteps(size_t first, size_t last)
{
    const auto done = [&] {
        return std::all_of(steps_.begin() + static_cast<std::ptrdiff_t>(first),
                           steps_.begin() + static_cast<std::ptrdiff_t>(last) + 1,
                           [](const Step& step) { return step.Done(); });
    };
    PumpUntil(options_.timeLimit, [&] { return done() || SomethingWentWrong(); });
    return done();
}

// The parts up to the shutdown; the first one that fails is the last one. The numbers are those of steps_.
void Conductor::Play()
{
    screen_.BeginPart("The daemon starts its workers, which report their start and send heartbeats.", board_);
    PumpUntil(options_.timeLimit, [&] { return steps_[1].have() != 0 || SomethingWentWrong(); });
    struct stat socket {};
    sawSocket_ = lstat(kSocket, &socket) == 0 && S_ISSOCK(socket.st_mode);
    if (!WaitForSteps(0, 6)) {
        return;
    }
    const Row& victim = board_.At(kKilledDevice, "ZOLT");
    screen_.BeginPart(
        Format("Device %u ZOLT, pid %d, is killed; the others go on.", kKilledDevice, static_cast<int>(victim.pid)),
        board_);
    killedAt_ = Now();
    kill(victim.pid, SIGKILL);
    WaitForSteps(7, 8);
}

// Also after a failure: the daemon ends its workers, or its end ends them.
void Conductor::Stop()
{
    screen_.BeginPart("The daemon is told to stop and shuts its workers down.", board_);
    Reap();
    if (daemonRuns_) {
        kill(daemon_, SIGTERM);
    }
    const auto over = [this] { return childless_ && events_ == -1; };
    PumpUntil(Now() + kStopTime, over);
    if (daemonRuns_) {
        kill(daemon_, SIGKILL);
    }
    PumpUntil(Now() + kKillTime, over);
    screen_.End(board_);
}

int Conductor::Result()
{
    printf("\n");
    bool complete = true;
    for (const Step& step : steps_) {
        complete = complete && step.Done();
        const std::string number = step.want > 1 ? Format(" (%u of %u)", step.have(), step.want) : "";
        printf("%-9s%s%s\n", step.Done() ? "done" : "MISSING", step.text.c_str(), number.c_str());
    }
    printf("\nThe demonstration %s after %.1f s.\n", complete ? "is complete" : "FAILED", Now());
    if (!options_.log.empty()) {
        printf("Device log of all processes: %s\n", options_.log.c_str());
    }
    if (interruptedBy_ != 0) {
        return 128 + interruptedBy_;
    }
    return fflush(stdout) == 0 && complete ? EXIT_SUCCESS : EXIT_FAILURE;
}

int Conductor::Run()
{
    DefineSteps();
    if (!Prepare() || !StartDaemon()) {
        return EXIT_FAILURE;
    }
    Play();
    Stop();
    return Result();
}

bool ParseOptions(int argc, char** argv, Options* options)
{
    char self[PATH_MAX] = "";
    if (readlink("/proc/self/exe", self, sizeof(self) - 1) == -1) {
        return false;
    }
    const std::string folder = std::string(self).substr(0, std::string(self).rfind('/') + 1);
    options->daemon = folder + "gak_daemon";
    options->worker = folder + "gak_worker";
    for (int i = 1; i < argc; i += 2) {
        const std::string name = argv[i];
        if (i + 1 == argc) {
            return false;
        }
        if (name == "--daemon") {
            options->daemon = argv[i + 1];
        } else if (name == "--worker") {
            options->worker = argv[i + 1];
        } else if (name == "--log") {
            options->log = argv[i + 1];
        } else if (name == "--time-limit") {
            options->timeLimit = strtod(argv[i + 1], nullptr);
        } else {
            return false;
        }
    }
    return options->timeLimit > 0;
}

}  // namespace

int main(int argc, char** argv)
{
    Options options;
    if (!ParseOptions(argc, argv, &options)) {
        fprintf(stderr,
                "Usage: %s [--log FILE] [--time-limit SECONDS] [--daemon PROGRAM] [--worker PROGRAM]\n"
                "  --log         where the device log of all processes goes (standard error)\n"
                "  --time-limit  when the shutdown begins at the latest (9)\n",
                argv[0]);
        return 2;
    }
    return Conductor(std::move(options)).Run();
}
