#ifndef GAKPPC_SLEEPER_H
#define GAKPPC_SLEEPER_H

#include <spawn.h>
#include <sys/types.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <fstream>
#include <string>
#include <vector>

#include "process.h"

// A program that does nothing, for tests of what an executed program inherits.
namespace gaktest {

// Starts it; it sleeps until it is killed. Zero when it cannot be started.
inline pid_t SpawnSleeper()
{
    char name[] = "sleep";
    char time[] = "1000";
    char* argv[] = {name, time, nullptr};
    pid_t pid = 0;
    return posix_spawn(&pid, "/bin/sleep", nullptr, nullptr, argv, environ) == 0 ? pid : 0;
}

// Waits until the process has become that program: only then does close-on-exec count.
inline bool BecomesSleeper(pid_t pid)
{
    return WaitUntil(
        [pid] {
            std::ifstream comm("/proc/" + std::to_string(pid) + "/comm");
            std::string name;
            return std::getline(comm, name) && name == "sleep";
        },
        std::chrono::seconds(20));
}

// Sockets that a process has, standard streams apart.
inline std::vector<std::string> SocketsOf(pid_t pid)
{
    std::vector<std::string> sockets;
    for (int fd = 3; fd < 1024; ++fd) {
        std::array<char, 64> target{};
        const std::string path = "/proc/" + std::to_string(pid) + "/fd/" + std::to_string(fd);
        if (readlink(path.c_str(), target.data(), target.size() - 1) > 0 &&
            std::string(target.data()).rfind("socket:", 0) == 0) {
            sockets.push_back(std::to_string(fd) + " -> " + target.data());
        }
    }
    return sockets;
}

}  // namespace gaktest

#endif
