#include "spawner.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <gakppc/gak_limits.h>
#include <gakppc/qel_message.pb.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <charconv>
#include <climits>
#include <cstring>
#include <stdexcept>

#include "common/exit_error.h"
#include "common/message.h"

extern char** environ;

namespace tools {
namespace {

constexpr uint32_t kMostWorkers = 10000;

// What posix_spawn is to do with descriptors and signals of the new process.
class SpawnSettings {
public:
    explicit SpawnSettings(const sigset_t& mask)
    {
        posix_spawn_file_actions_init(&files_);
        // Standard output is for this program's own lines.
        posix_spawn_file_actions_addopen(&files_, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_addopen(&files_, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
        posix_spawnattr_init(&attributes_);
        sigset_t ignored;
        sigemptyset(&ignored);
        sigaddset(&ignored, SIGPIPE);
        sigaddset(&ignored, SIGTTIN);
        posix_spawnattr_setsigdefault(&attributes_, &ignored);
        posix_spawnattr_setsigmask(&attributes_, &mask);
        posix_spawnattr_setpgroup(&attributes_, 0);  // Ctrl-C is for the daemon
        posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
    }
    ~SpawnSettings()
    {
        posix_spawn_file_actions_destroy(&files_);
        posix_spawnattr_destroy(&attributes_);
    }
    SpawnSettings(const SpawnSettings&) = delete;
    SpawnSettings& operator=(const SpawnSettings&) = delete;

    const posix_spawn_file_actions_t* files() const { return &files_; }
    const posix_spawnattr_t* attributes() const { return &attributes_; }

private:
    posix_spawn_file_actions_t files_;
    posix_spawnattr_t attributes_;
};

uint32_t ParseNumber(const std::string& text, uint32_t lowest, uint32_t highest)
{
    uint32_t number = 0;
    const char* end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, number);
    if (result.ec != std::errc() || result.ptr != end || number < lowest || number > highest) {
        throw std::invalid_argument(fmt::format("\"{}\" is no number from {} to {}", text, lowest, highest));
    }
    return number;
}

}  // namespace

SpawnRequest ParseSpawn(const std::string& text)
{
    const size_t first = text.find(':');
    if (first == std::string::npos) {
        throw std::invalid_argument(fmt::format("\"{}\" is not DEVICE:TYPE[:N]", text));
    }
    const size_t second = text.find(':', first + 1);
    SpawnRequest request;
    request.device = ParseNumber(text.substr(0, first), 0, qel::MAX_DEVNUM_PER_OS - 1);
    request.type = ParseProcess(text.substr(first + 1, second - first - 1));
    if (request.type < 0 || request.type > qel::PPCMessage::CUSTOM_COMPUTE) {
        throw std::invalid_argument(fmt::format("\"{}\" names no process type", text));
    }
    request.count = second == std::string::npos ? 1 : ParseNumber(text.substr(second + 1), 1, kMostWorkers);
    return request;
}

std::string DefaultWorkerProgram()
{
    char self[PATH_MAX] = "";
    if (readlink("/proc/self/exe", self, sizeof(self) - 1) > 0) {
        const std::string path(self);
        std::string sibling = path.substr(0, path.rfind('/') + 1) + "gakppctl";
        if (access(sibling.c_str(), X_OK) == 0) {
            return sibling;
        }
    }
    return "gakppctl";
}

pid_t Spawner::Start(uint32_t device, int type) const
{
    std::vector<std::string> words{program_, "worker", "--device", std::to_string(device), "--type", ProcessName(type)};
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    const SpawnSettings settings(mask_);
    pid_t pid = -1;
    const int error =
        posix_spawnp(&pid, program_.c_str(), settings.files(), settings.attributes(), arguments.data(), environ);
    if (error != 0) {
        throw ExitError(kExitFailed, fmt::format("{}: {}", program_, strerror(error)));
    }
    return pid;
}

std::optional<Reaped> ReapOne()
{
    int status = 0;
    const pid_t pid = waitpid(-1, &status, WNOHANG);
    if (pid <= 0) {
        return std::nullopt;
    }
    const bool exited = WIFEXITED(status);
    return Reaped{pid, exited && WEXITSTATUS(status) == 0,
                  exited ? fmt::format("exit {}", WEXITSTATUS(status)) : fmt::format("signal {}", WTERMSIG(status))};
}

}  // namespace tools
