#ifndef GAKPPC_SPAWNER_H
#define GAKPPC_SPAWNER_H

#include <sys/types.h>

#include <csignal>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tools {

// "DEVICE:TYPE[:N]".
struct SpawnRequest {
    uint32_t device = 0;
    int type = 0;
    uint32_t count = 1;
};

// Throws std::invalid_argument.
SpawnRequest ParseSpawn(const std::string& text);

// The gakppctl next to this program, or the one in PATH.
std::string DefaultWorkerProgram();

// Starts workers.
class Spawner {
public:
    // `mask` is the signal mask that workers get.
    Spawner(std::string program, const sigset_t& mask) : program_(std::move(program)), mask_(mask) {}

    // The new process. Throws ExitError.
    pid_t Start(uint32_t device, int type) const;

private:
    std::string program_;
    sigset_t mask_;
};

// One spawned process that has ended.
struct Reaped {
    pid_t pid = 0;
    bool orderly = false;  // exit status 0
    std::string how;       // "exit 0", "signal 9"
};

// Nothing when no further process has ended. Does not wait.
std::optional<Reaped> ReapOne();

}  // namespace tools

#endif
