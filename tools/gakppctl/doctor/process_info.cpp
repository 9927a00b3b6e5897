#include "process_info.h"

#include <fmt/format.h>

#include <charconv>
#include <filesystem>
#include <fstream>

#include "common/listeners.h"

namespace tools {
namespace {

namespace fs = std::filesystem;

std::optional<unsigned long> NumberIn(const std::string& text, int base)
{
    unsigned long number = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number, base);
    return result.ec == std::errc() ? std::optional<unsigned long>(number) : std::nullopt;
}

std::optional<unsigned long> CountOfDescriptors(const fs::path& process)
{
    std::error_code error;
    const fs::directory_iterator open(process / "fd", error);
    if (error) {
        return std::nullopt;
    }
    return static_cast<unsigned long>(std::distance(begin(open), end(open)));
}

// A line of maps ends in the path; an upgrade that has replaced the file adds " (deleted)".
std::optional<std::string> LoadedLibrary(const fs::path& process)
{
    std::ifstream maps(process / "maps");
    std::string line;
    if (!std::getline(maps, line)) {
        return std::nullopt;
    }
    do {
        if (line.find("/libgakppc.so") != std::string::npos) {
            return line.substr(line.find('/'));
        }
    } while (std::getline(maps, line));
    return "";
}

}  // namespace

ProcessInfo DescribeProcess(pid_t pid)
{
    ProcessInfo process;
    if (pid == 0) {
        return process;
    }
    const std::string folder = fmt::format("/proc/{}", pid);
    const std::string status = folder + "/status";
    process.pid = pid;
    process.name = ValueInFile(status, "Name");
    if (const auto mask = NumberIn(ValueInFile(status, "Umask"), 8)) {
        process.umask = static_cast<mode_t>(*mask);
    }
    const std::string state = ValueInFile(status, "State");
    if (!state.empty()) {
        process.state = state.front();
    }
    process.descriptors = CountOfDescriptors(folder);
    process.descriptorLimit = NumberIn(ValueInFile(folder + "/limits", "Max open files"), 10);
    process.loadedLibrary = LoadedLibrary(folder);
    return process;
}

}  // namespace tools
