#include "tracer.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <linux/magic.h>
#include <sys/prctl.h>
#include <sys/vfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <vector>

#include "common/exit_error.h"
#include "trace_program.h"

namespace tools {
namespace {

constexpr char kBufferPages[] = "1024";  // for each processor; 64 lose reports above some ten thousand a second

struct Pipe {
    Fd in, out;
};

Pipe MakePipe()
{
    int ends[2] = {-1, -1};
    if (pipe2(ends, O_CLOEXEC) == -1) {
        throw ExitError(kExitFailed, fmt::format("pipe2: {}", strerror(errno)));
    }
    return {Fd(ends[0]), Fd(ends[1])};
}

std::string FindProgram(const std::string& name)
{
    const char* path = getenv("PATH");
    std::istringstream folders(path != nullptr ? path : "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin");
    for (std::string folder; std::getline(folders, folder, ':');) {
        std::string program = fmt::format("{}/{}", folder, name);
        if (access(program.c_str(), X_OK) == 0) {
            return program;
        }
    }
    return "";
}

bool IsTracefs(const char* path)
{
    struct statfs filesystem {};
    return statfs(path, &filesystem) == 0 && filesystem.f_type == TRACEFS_MAGIC;
}

std::string RequireBpftrace()
{
    std::string program = FindProgram("bpftrace");
    if (program.empty()) {
        throw ExitError(kExitFailed,
                        "watch needs bpftrace, which is not installed (Debian package bpftrace); without it: gakppctl "
                        "tap shows the messages of workers that connect from now on, gakppctl list who is connected");
    }
    if (!IsTracefs("/sys/kernel/tracing") && !IsTracefs("/sys/kernel/debug/tracing")) {
        throw ExitError(kExitFailed,
                        "watch needs the kernel's tracing file system: mount -t tracefs tracefs /sys/kernel/tracing");
    }
    return program;
}

// Only calls that are allowed between fork and exec in a process with threads.
[[noreturn]] void RunChild(const std::vector<const char*>& arguments, const std::vector<const char*>& environment,
                           const Pipe& reports, const Pipe& complaints, const sigset_t& mask, pid_t parent)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    setpgid(0, 0);  // Ctrl-C is for its parent
    signal(SIGPIPE, SIG_DFL);
    signal(SIGINT, SIG_DFL);
    signal(SIGTERM, SIG_DFL);
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
    const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (getppid() == parent && dup2(nothing, STDIN_FILENO) != -1 && dup2(reports.out.get(), STDOUT_FILENO) != -1 &&
        dup2(complaints.out.get(), STDERR_FILENO) != -1) {
        execve(arguments.front(), const_cast<char* const*>(arguments.data()),
               const_cast<char* const*>(environment.data()));
    }
    _exit(kExitFailed);
}

std::vector<const char*> EnvironmentWith(const std::vector<std::string>& settings)
{
    std::vector<const char*> environment;
    environment.reserve(settings.size());
    for (const std::string& setting : settings) {
        environment.push_back(setting.c_str());
    }
    for (char** entry = environ; *entry != nullptr; ++entry) {
        if (strncmp(*entry, "BPFTRACE_", 9) != 0) {
            environment.push_back(*entry);
        }
    }
    environment.push_back(nullptr);
    return environment;
}

// bpftrace's programs know a process by its number in the kernel's first pid namespace.
bool IsInFirstPidNamespace()
{
    constexpr char kFirst[] = "pid:[4026531836]";  // PROC_PID_INIT_INO
    std::error_code error;
    return std::filesystem::read_symlink("/proc/self/ns/pid", error) == kFirst;
}

void RequireOwnPids(const WatchedProcess& process)
{
    if (!process.loaded().isAtPath && !IsInFirstPidNamespace()) {
        throw ExitError(kExitFailed,
                        fmt::format("process {} uses a library that is no longer at {}; watch it from outside of this "
                                    "pid namespace, or see gakppctl tap",
                                    process.pid(), process.loaded().path));
    }
}

}  // namespace

Tracer::Tracer(const WatchedProcess& process, const sigset_t& mask)
{
    const std::string bpftrace = RequireBpftrace();
    RequireOwnPids(process);
    Pipe reports = MakePipe();
    Pipe complaints = MakePipe();
    // With -p it finds only what is at its path; without, it attaches to all processes that use the file.
    const LoadedLibrary& library = process.loaded();
    const std::string program =
        library.isAtPath ? TraceProgram(library.path, 0) : TraceProgram(library.file, process.pid());
    const std::string pid = std::to_string(process.pid());
    std::vector<const char*> arguments{bpftrace.c_str(), "-f", "json", "-e", program.c_str()};
    if (library.isAtPath) {
        arguments.insert(arguments.end(), {"-p", pid.c_str()});
    }
    arguments.push_back(nullptr);
    const std::vector<std::string> settings{fmt::format("BPFTRACE_STRLEN={}", kTracePiece),
                                            fmt::format("BPFTRACE_MAX_STRLEN={}", kTracePiece),
                                            fmt::format("BPFTRACE_PERF_RB_PAGES={}", kBufferPages)};
    const std::vector<const char*> environment = EnvironmentWith(settings);
    const pid_t parent = getpid();
    pid_ = fork();
    if (pid_ == 0) {
        RunChild(arguments, environment, reports, complaints, mask, parent);
    }
    if (pid_ == -1) {
        throw ExitError(kExitFailed, fmt::format("fork: {}", strerror(errno)));
    }
    reports_ = std::move(reports.in);
    complaints_ = std::move(complaints.in);
}

Tracer::~Tracer()
{
    kill(pid_, SIGKILL);
    while (waitpid(pid_, nullptr, 0) == -1 && errno == EINTR) {
    }
}

}  // namespace tools
