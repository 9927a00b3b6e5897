#include "standard_fds.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "exit_error.h"

namespace tools {
namespace {

bool IsClosed(int fd)
{
    return fcntl(fd, F_GETFD) == -1 && errno == EBADF;
}

}  // namespace

bool OpenMissingStandardFds()
{
    const bool hasOutput = !IsClosed(STDOUT_FILENO);
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        // open takes the lowest free number, which is this one.
        if (IsClosed(fd) && open("/dev/null", O_RDWR) != fd) {
            _exit(kExitFailed);  // there is nowhere to print to, and no descriptor is safe to open
        }
    }
    return hasOutput;
}

}  // namespace tools
