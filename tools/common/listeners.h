#ifndef GAKPPC_LISTENERS_H
#define GAKPPC_LISTENERS_H

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace tools {

// A process that listens at a path. Processes that see other files under the same path (another mount namespace) are
// left out. One whose descriptors we may not look at has the pid 0.
struct ListeningProcess {
    std::string path;  // under which the socket was bound; it may have been renamed or removed since
    pid_t pid = 0;
};

// All that were bound at `path`.
std::vector<ListeningProcess> ListenersAt(const std::string& path);

// The processes that have a socket open, as far as we may look into them. `number` is the kernel's.
std::vector<pid_t> ProcessesWithSocket(uint32_t number);

// Whether a process, whose descriptors we may see, lives in another mount namespace or below another root directory.
bool SeesOtherFiles(pid_t pid);

// The value of one line "key:  value" of a file, empty when it is missing.
std::string ValueInFile(const std::string& file, const std::string& key);

}  // namespace tools

#endif
