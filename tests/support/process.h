#ifndef GAKPPC_PROCESS_H
#define GAKPPC_PROCESS_H

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

#include "deadline.h"

namespace gaktest {

// How a process ended.
struct ExitStatus {
    bool ended = false;  // false: the deadline came first
    int code = -1;       // of exit, -1 when there was none
    int signal = 0;      // that killed it, 0 when none did

    bool ExitedWith(int wanted) const { return ended && signal == 0 && code == wanted; }
    bool KilledBy(int wanted) const { return ended && signal == wanted; }
};
std::ostream& operator<<(std::ostream& out, const ExitStatus& status);

// A forked child that runs a function and ends with _exit and its result: no exit handler and no destructor of a static
// object runs (a function that wants them calls exit itself). An exception ends it with code 125, a gtest assertion
// that failed in it with code 126. Fork before the process starts threads or uses the library's singletons. The child
// is killed when the thread that created it ends.
class ChildProcess {
public:
    static constexpr int kExceptionCode = 125;
    static constexpr int kFailedAssertionCode = 126;

    explicit ChildProcess(const std::function<int()>& body);
    // Kills the child when it still runs.
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const { return pid_; }

    // After the child's end every call returns the same status.
    ExitStatus WaitExit(Deadline deadline);

    // Likewise, for a process that waits for no other one and never longer than a tenth of a second for time to pass.
    // It hangs when all its threads sleep and none has run for a second, however busy the machine is; one that runs
    // without end is given up at the deadline. So is one under a sanitizer, whose own thread runs all the time.
    ExitStatus WaitExitUnlessItHangs(Deadline deadline);

    // Does nothing when the child's end has been waited for.
    void Kill(int signal);

private:
    void Reap();

    pid_t pid_ = -1;
    int pidFd_ = -1;
    ExitStatus status_;
};

// Makes standard error a pipe without a reader. False when there is none to be had.
bool BreakStandardError();

// Descriptors that this process has open.
size_t OpenDescriptors();

// Threads of this process, and their names. A joined thread may be counted for another moment: wait for the number with
// WaitUntil. Under the thread sanitizer one of them is the sanitizer's own, from the start of the program on.
size_t ThreadCount();
std::vector<std::string> ThreadNames();

// The ids of the threads whose names begin like this.
std::vector<std::string> ThreadIds(const std::string& namePrefix);

// Whether there are other users, whom files can be given to: not in the user namespace of an ordinary user's test run.
bool MapsOtherUsers();

// Waits until `condition` holds, asking every few milliseconds. False when the deadline came first. Only for state that
// has no event to wait for, such as the system's tables of threads and descriptors.
bool WaitUntil(const std::function<bool()>& condition, Deadline deadline);

}  // namespace gaktest

// In a test that becomes another user.
#define GAKPPC_SKIP_WITHOUT_OTHER_USERS() \
    if (!gaktest::MapsOtherUsers()) { \
        GTEST_SKIP() << "there is no other user in the namespace of an ordinary user's test run"; \
    }

#endif
