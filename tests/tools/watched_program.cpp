// A worker that does what it is told on standard input, a word a line: report (a heartbeat), fork (a child that
// reports, and ends), exec (another program in its place). It answers each with a line.

#include <gakppc/gak.h>
#include <gakppc/ppc.h>
#include <sys/wait.h>
#include <unistd.h>

#include <iostream>
#include <string>

namespace {

bool Report()
{
    return GakHeartbeatSend(1, 1) == 0;
}

bool ReportInAChild()
{
    const pid_t child = fork();
    if (child == 0) {
        _exit(Report() ? 0 : 1);
    }
    int status = -1;
    return waitpid(child, &status, 0) == child && status == 0;
}

}  // namespace

int main()
{
    std::cout << (ppcInit() == PPC_OK ? "READY" : "FAILED") << std::endl;
    for (std::string word; std::getline(std::cin, word);) {
        if (word == "exec") {
            execlp("cat", "cat", nullptr);
        }
        const bool done = word == "report" ? Report() : word == "fork" && ReportInAChild();
        std::cout << (done ? "DONE " : "FAILED ") << word << std::endl;
    }
    return 0;
}
