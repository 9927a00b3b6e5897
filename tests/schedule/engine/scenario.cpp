#include "scenario.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "../../support/deadline.h"
#include "scheduler.h"

namespace gaktest {

Scenario* scenarios = nullptr;

void Require(bool condition, const char* otherwise)
{
    const uintptr_t place = PlaceOf(__builtin_return_address(0));
    if (self == nullptr) {
        if (!condition) {
            fprintf(stderr, "outside a run: %s\n", otherwise);
            abort();
        }
        return;
    }
    self->step = {Op::kEnd, place};
    if (!condition) {
        Found("%s", otherwise);
    }
}

void EndWithParent()
{
    EndProcessAfter(std::chrono::seconds(20));  // a run that takes so long waits where the scheduler does not see it
    prctl(PR_SET_PDEATHSIG, SIGKILL);
}

void ExitProcess()
{
    ExpectExit();
    exit(0);
}

void RunInChild(const std::function<void()>& body)
{
    const pid_t child = fork();
    if (child == 0) {
        EndWithParent();
        body();
        _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    if (WIFEXITED(status) && WEXITSTATUS(status) != 0) {
        _exit(WEXITSTATUS(status));  // it has left its finding
    }
    Require(WIFEXITED(status), "the forked child was ended by a signal");
}

int OpenDescriptors()
{
    constexpr int kMostDescriptors = 256;
    int count = 0;
    for (int fd = 0; fd < kMostDescriptors; ++fd) {
        count += syscall(SYS_fcntl, fd, F_GETFD) == -1 ? 0 : 1;
    }
    return count;
}

int RunningThreads()
{
    int count = 0;
    for (int id = 0; id < ThreadCount(); ++id) {
        count += ThreadAt(id).alive ? 1 : 0;
    }
    return count;
}

}  // namespace gaktest
