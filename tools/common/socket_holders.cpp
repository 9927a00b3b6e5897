#include "socket_holders.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <ctime>
#include <memory>
#include <set>
#include <sstream>
#include <utility>

namespace tools {
namespace {

using Directory = std::unique_ptr<DIR, int (*)(DIR*)>;
using OpenSockets = std::map<uint32_t, std::vector<int>>;  // with their descriptors

constexpr int kStartTimeField = 22;  // of /proc/PID/stat
constexpr int kStateField = 3;

// Closes `folder`. Null, with errno set, when that is no directory.
Directory OpenDirectory(Fd folder)
{
    Directory directory(folder.valid() ? fdopendir(folder.get()) : nullptr, closedir);
    if (directory != nullptr) {
        folder.Release();
    }
    return directory;
}

std::optional<int> NumberOf(const char* text)
{
    const std::string digits = text;
    int number = 0;
    const auto result = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    const bool isNumber = result.ec == std::errc() && result.ptr == digits.data() + digits.size();
    return isNumber ? std::optional<int>(number) : std::nullopt;
}

std::string LinkTarget(int folder, const char* link)
{
    std::array<char, 64> target{};
    const ssize_t size = readlinkat(folder, link, target.data(), target.size());
    return {target.data(), static_cast<size_t>(std::max<ssize_t>(size, 0))};
}

// "socket:[4711]".
std::optional<uint32_t> SocketBehind(int folder, const char* descriptor)
{
    const std::string target = LinkTarget(folder, descriptor);
    const std::string prefix = "socket:[";
    uint32_t number = 0;
    if (target.compare(0, prefix.size(), prefix) != 0) {
        return std::nullopt;
    }
    const auto result = std::from_chars(target.data() + prefix.size(), target.data() + target.size(), number);
    return result.ec == std::errc() ? std::optional<uint32_t>(number) : std::nullopt;
}

OpenSockets SocketsIn(const Directory& descriptors)
{
    OpenSockets open;
    while (const dirent* entry = readdir(descriptors.get())) {
        const std::optional<int> descriptor = NumberOf(entry->d_name);
        const auto socket =
            descriptor.has_value() ? SocketBehind(dirfd(descriptors.get()), entry->d_name) : std::nullopt;
        if (socket.has_value()) {
            open[*socket].push_back(*descriptor);
        }
    }
    return open;
}

// `ticks` count from the start of the system.
SystemTime TimeOfTicks(long ticks)
{
    timespec now{}, sinceBoot{};
    clock_gettime(CLOCK_REALTIME, &now);
    clock_gettime(CLOCK_BOOTTIME, &sinceBoot);
    const auto duration = [](const timespec& time) {
        return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
    };
    const auto boot = duration(now) - duration(sinceBoot);
    const auto start = boot + std::chrono::milliseconds(ticks * 1000 / sysconf(_SC_CLK_TCK));
    return SystemTime(std::chrono::floor<std::chrono::seconds>(start));
}

// The name stands in brackets and may hold any character, brackets, spaces and newlines as well.
void ReadStat(int process, SocketHolder& holder)
{
    const Fd file(openat(process, "stat", O_RDONLY | O_CLOEXEC));
    std::array<char, 4096> buffer{};
    const ssize_t size = file.valid() ? read(file.get(), buffer.data(), buffer.size()) : -1;
    const std::string text(buffer.data(), static_cast<size_t>(std::max<ssize_t>(size, 0)));
    const size_t begin = text.find('(');
    const size_t end = text.rfind(')');
    if (begin == std::string::npos || end == std::string::npos || end < begin) {
        return;
    }
    holder.program = text.substr(begin + 1, end - begin - 1);
    std::istringstream fields(text.substr(end + 1));
    std::string skipped;
    for (int field = kStateField; field < kStartTimeField; ++field) {
        fields >> skipped;
    }
    long ticks = 0;
    if (fields >> ticks) {
        holder.started = TimeOfTicks(ticks);
    }
}

bool IsOlder(const SocketHolder& left, const SocketHolder& right)
{
    return std::pair(left.started.value_or(SystemTime::max()), left.pid) <
           std::pair(right.started.value_or(SystemTime::max()), right.pid);
}

// Reads the folders of processes, each through its descriptor, which never leads to a later process of that number.
class Scan {
public:
    Scan() { networks_.insert(LinkTarget(AT_FDCWD, "/proc/self/ns/net")); }

    void Add(int processes, pid_t pid)
    {
        const Fd process(openat(processes, std::to_string(pid).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        const Directory descriptors =
            OpenDirectory(Fd(openat(process.get(), "fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC)));
        if (descriptors != nullptr) {
            AddSockets(process.get(), pid, SocketsIn(descriptors));
            AddNetwork(process.get());
        } else if (errno != ENOENT && errno != ESRCH && process.valid()) {
            holders_.complete = false;
        }
    }

    SocketHolders Finish()
    {
        for (auto& [socket, found] : holders_.of) {
            std::sort(found.begin(), found.end(), IsOlder);
        }
        return std::move(holders_);
    }

    void MarkIncomplete() { holders_.complete = false; }

private:
    void AddSockets(int process, pid_t pid, const OpenSockets& open)
    {
        if (open.empty()) {
            return;
        }
        SocketHolder holder;
        holder.pid = pid;
        ReadStat(process, holder);
        for (const auto& [socket, numbers] : open) {
            holder.descriptors = numbers;
            holders_.of[socket].push_back(holder);
        }
    }

    void AddNetwork(int process)
    {
        const std::string name = LinkTarget(process, "ns/net");
        if (name.empty() || !networks_.insert(name).second) {
            return;
        }
        Fd network(openat(process, "ns/net", O_RDONLY | O_CLOEXEC));
        if (network.valid()) {
            holders_.otherNetworks.push_back(std::move(network));
        }
    }

    SocketHolders holders_;
    std::set<std::string> networks_;
};

}  // namespace

std::vector<SocketHolder> SocketHolders::Of(uint32_t socket) const
{
    const auto found = of.find(socket);
    return found == of.end() ? std::vector<SocketHolder>() : found->second;
}

SocketHolders FindSocketHolders()
{
    Scan scan;
    const Directory processes = OpenDirectory(Fd(open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC)));
    if (processes == nullptr) {
        scan.MarkIncomplete();
        return scan.Finish();
    }
    while (const dirent* entry = readdir(processes.get())) {
        if (const std::optional<int> pid = NumberOf(entry->d_name)) {
            scan.Add(dirfd(processes.get()), *pid);
        }
    }
    return scan.Finish();
}

}  // namespace tools
