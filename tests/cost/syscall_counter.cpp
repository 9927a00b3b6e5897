#include "syscall_counter.h"

#include <signal.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>

namespace gaktest {
namespace {

constexpr int kMarkCall = SYS_getppid;  // nothing that is counted here calls it
constexpr int kSyscallStop = SIGTRAP | 0x80;

}  // namespace

void MarkForCounter(unsigned long mark)
{
    syscall(kMarkCall, mark);
}

void SyscallCounter::Fork(const std::function<int()>& body)
{
    const pid_t child = fork();
    if (child == -1) {
        throw std::runtime_error("fork");
    }
    if (child == 0) {
        if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) == -1) {
            _exit(EXIT_FAILURE);
        }
        raise(SIGSTOP);
        _exit(body());
    }
    int status = 0;
    if (waitpid(child, &status, 0) != child || !WIFSTOPPED(status)) {
        throw std::runtime_error("ptrace");
    }
    ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACECLONE | PTRACE_O_EXITKILL);
    children_.insert(child);
}

bool SyscallCounter::CountAll()
{
    for (const pid_t child : children_) {
        ptrace(PTRACE_SYSCALL, child, nullptr, nullptr);
    }
    bool allSucceeded = true;
    while (!children_.empty()) {
        int status = 0;
        const pid_t tid = waitpid(-1, &status, __WALL);
        if (tid == -1) {
            return false;
        }
        if (WIFSTOPPED(status)) {
            HandleStop(tid, WSTOPSIG(status));
        } else if (children_.erase(tid) != 0) {
            allSucceeded = allSucceeded && WIFEXITED(status) && WEXITSTATUS(status) == 0;
        }
    }
    return allSucceeded;
}

void SyscallCounter::HandleStop(pid_t tid, int signal)
{
    int delivered = 0;
    if (signal == kSyscallStop) {
        HandleSyscall(tid);
    } else if (signal != SIGTRAP && signal != SIGSTOP) {
        delivered = signal;  // neither an event of the tracer's nor the first stop of a thread
    }
    ptrace(PTRACE_SYSCALL, tid, nullptr, delivered);
}

void SyscallCounter::HandleSyscall(pid_t tid)
{
    __ptrace_syscall_info info{};
    if (ptrace(PTRACE_GET_SYSCALL_INFO, tid, sizeof(info), &info) <= 0 || info.op != PTRACE_SYSCALL_INFO_ENTRY) {
        return;
    }
    const uint64_t calls = calls_[tid]++;
    if (info.entry.nr != kMarkCall) {
        return;
    }
    const unsigned long mark = info.entry.args[0];
    const auto [first, isFirst] = firstMark_.emplace(mark, calls);
    if (!isFirst) {
        between_.emplace(mark, calls - first->second - 1);
    }
}

uint64_t SyscallCounter::Between(unsigned long mark) const
{
    const auto found = between_.find(mark);
    return found == between_.end() ? 0 : found->second;
}

}  // namespace gaktest
