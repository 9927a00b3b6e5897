#include "process.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <fstream>
#include <memory>
#include <optional>
#include <ostream>
#include <stdexcept>

namespace gaktest {
namespace {

constexpr int kAskAgainMs = 2;
constexpr char kThreads[] = "/proc/self/task";

std::vector<std::string> DirectoryEntries(const char* path)
{
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir(path), &closedir);
    if (directory == nullptr) {
        throw std::runtime_error(std::string(path) + ": " + strerror(errno));
    }
    std::vector<std::string> names;
    while (const dirent* entry = readdir(directory.get())) {
        if (entry->d_name[0] != '.') {
            names.emplace_back(entry->d_name);
        }
    }
    return names;
}

// Empty when the thread has ended.
std::string NameOfThread(const std::string& id)
{
    std::ifstream file(std::string(kThreads) + "/" + id + "/comm");
    std::string name;
    std::getline(file, name);
    return name;
}

// How often the threads of a process have run until now; empty when not all of them sleep.
std::optional<uint64_t> RunsWhenAllSleep(pid_t pid)
{
    uint64_t runs = 0;
    const std::string threads = "/proc/" + std::to_string(pid) + "/task";
    for (const std::string& id : DirectoryEntries(threads.c_str())) {
        std::ifstream status(threads + "/" + id + "/status");
        for (std::string line; std::getline(status, line);) {
            if (line.rfind("State:", 0) == 0 && line.find("S (sleeping)") == std::string::npos) {
                return std::nullopt;
            }
            if (line.find("voluntary_ctxt_switches:") != std::string::npos) {
                runs += std::stoull(line.substr(line.find(':') + 1));
            }
        }
    }
    return runs;
}

int RunBody(const std::function<int()>& body)
{
    try {
        const int code = body();
        return code == 0 && testing::Test::HasFailure() ? ChildProcess::kFailedAssertionCode : code;
    } catch (const std::exception& error) {
        fprintf(stderr, "exception in a child process: %s\n", error.what());
    } catch (...) {
        fprintf(stderr, "unknown exception in a child process\n");
    }
    return ChildProcess::kExceptionCode;
}

[[noreturn]] void RunChild(const std::function<int()>& body, pid_t parent)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) {
        _exit(ChildProcess::kExceptionCode);  // the parent died before the line above
    }
    const int code = RunBody(body);
    fflush(nullptr);
    _exit(code);
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const ExitStatus& status)
{
    if (!status.ended) {
        return out << "still running";
    }
    if (status.signal != 0) {
        return out << "killed by signal " << status.signal;
    }
    return out << "exited with " << status.code;
}

ChildProcess::ChildProcess(const std::function<int()>& body)
{
    fflush(nullptr);  // what is buffered now would be written twice
    const pid_t parent = getpid();
    pid_ = fork();
    if (pid_ == -1) {
        throw std::runtime_error(std::string("fork: ") + strerror(errno));
    }
    if (pid_ == 0) {
        RunChild(body, parent);
    }
    pidFd_ = static_cast<int>(syscall(SYS_pidfd_open, pid_, 0));
    if (pidFd_ == -1) {
        const int error = errno;
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        throw std::runtime_error(std::string("pidfd_open: ") + strerror(error));
    }
}

ChildProcess::~ChildProcess()
{
    Kill(SIGKILL);
    Reap();
    close(pidFd_);
}

ExitStatus ChildProcess::WaitExit(Deadline deadline)
{
    pollfd wanted{pidFd_, POLLIN, 0};
    int ready = 0;
    do {
        ready = poll(&wanted, 1, deadline.RemainingMs());
    } while (ready == -1 && errno == EINTR);
    if (ready == 1) {
        Reap();
    }
    return status_;
}

ExitStatus ChildProcess::WaitExitUnlessItHangs(Deadline deadline)
{
    std::optional<uint64_t> before;
    while (!WaitExit(std::chrono::seconds(1)).ended && !deadline.Passed()) {
        const std::optional<uint64_t> runs = RunsWhenAllSleep(pid_);
        if (runs.has_value() && runs == before) {
            break;
        }
        before = runs;
    }
    return status_;
}

void ChildProcess::Kill(int signal)
{
    if (!status_.ended) {
        kill(pid_, signal);
    }
}

void ChildProcess::Reap()
{
    if (status_.ended) {
        return;
    }
    int status = 0;
    while (waitpid(pid_, &status, 0) == -1 && errno == EINTR) {
    }
    status_.ended = true;
    status_.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    status_.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
}

bool BreakStandardError()
{
    int ends[2] = {-1, -1};
    if (pipe2(ends, O_CLOEXEC) == -1) {
        return false;
    }
    const bool done = dup2(ends[1], STDERR_FILENO) != -1;
    close(ends[0]);
    close(ends[1]);
    return done;
}

size_t OpenDescriptors()
{
    return DirectoryEntries("/proc/self/fd").size() - 1;  // the listing itself has one open
}

size_t ThreadCount()
{
    return DirectoryEntries(kThreads).size();
}

std::vector<std::string> ThreadNames()
{
    std::vector<std::string> names;
    for (const std::string& id : DirectoryEntries(kThreads)) {
        const std::string name = NameOfThread(id);
        if (!name.empty()) {
            names.push_back(name);
        }
    }
    return names;
}

std::vector<std::string> ThreadIds(const std::string& namePrefix)
{
    std::vector<std::string> ids = DirectoryEntries(kThreads);
    ids.erase(std::remove_if(ids.begin(), ids.end(),
                             [&](const std::string& id) { return NameOfThread(id).rfind(namePrefix, 0) != 0; }),
              ids.end());
    return ids;
}

bool MapsOtherUsers()
{
    std::ifstream map("/proc/self/uid_map");
    uint32_t inside = 0, outside = 0, count = 0;
    map >> inside >> outside >> count;
    return count > 1;
}

bool WaitUntil(const std::function<bool()>& condition, Deadline deadline)
{
    while (!condition()) {
        if (deadline.Passed()) {
            return false;
        }
        poll(nullptr, 0, kAskAgainMs);
    }
    return true;
}

}  // namespace gaktest
