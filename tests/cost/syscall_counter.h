#ifndef GAKPPC_SYSCALL_COUNTER_H
#define GAKPPC_SYSCALL_COUNTER_H

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <set>

namespace gaktest {

// Marks a place in the calling thread's course: the counter reports how many system calls the thread makes between two
// marks of the same number.
void MarkForCounter(unsigned long mark);

// Runs functions in forked children, watches them and all their threads, and counts system calls.
class SyscallCounter {
public:
    // The child ends with _exit and the function's result. It does not run before CountAll.
    void Fork(const std::function<int()>& body);

    // Lets the children run until all have ended. False when one of them did not end with 0.
    bool CountAll();

    // The system calls between the first two marks of that number, 0 when there are none.
    uint64_t Between(unsigned long mark) const;

private:
    void HandleStop(pid_t tid, int signal);
    void HandleSyscall(pid_t tid);

    std::set<pid_t> children_;                     // that have not ended
    std::map<pid_t, uint64_t> calls_;              // of each thread
    std::map<unsigned long, uint64_t> firstMark_;  // the thread's calls before it
    std::map<unsigned long, uint64_t> between_;
};

}  // namespace gaktest

#endif
