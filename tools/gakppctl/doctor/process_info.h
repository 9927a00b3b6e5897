#ifndef GAKPPC_PROCESS_INFO_H
#define GAKPPC_PROCESS_INFO_H

#include <sys/types.h>

#include <optional>
#include <string>

namespace tools {

// What /proc tells of a process. What could not be read has no value.
struct ProcessInfo {
    pid_t pid = 0;  // 0: unknown
    std::string name;
    std::optional<mode_t> umask;
    std::optional<char> state;  // as ps shows it: 'T' for stopped
    std::optional<unsigned long> descriptors;
    std::optional<unsigned long> descriptorLimit;
    std::optional<std::string> loadedLibrary;  // the libgakppc that it has loaded, empty for none
};
ProcessInfo DescribeProcess(pid_t pid);

}  // namespace tools

#endif
