#include "listeners.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include "socket_diag.h"
#include "socket_holders.h"

namespace tools {
namespace {

namespace fs = std::filesystem;

constexpr unsigned kListening = 0x10000;  // flag of /proc/net/unix

std::string LinkTarget(const fs::path& link)
{
    std::error_code error;
    return fs::read_symlink(link, error).string();
}

bool IsSameLink(const std::string& link, const std::string& other)
{
    const std::string target = LinkTarget(link);
    return !target.empty() && target == LinkTarget(other);
}

// The kernel's numbers of the sockets that listen and were bound at `path`.
std::set<uint32_t> SocketsBoundAt(const std::string& path)
{
    std::set<uint32_t> sockets;
    std::ifstream table("/proc/net/unix");
    std::string line;
    std::getline(table, line);
    while (std::getline(table, line)) {
        std::istringstream fields(line);
        std::string address, references, protocol, type, state, boundAt;
        unsigned flags = 0;
        uint32_t number = 0;
        fields >> address >> references >> protocol >> std::hex >> flags >> type >> state >> std::dec >> number >>
            boundAt;
        if (!fields.fail() && (flags & kListening) != 0 && boundAt == path) {
            sockets.insert(number);
        }
    }
    return sockets;
}

// Those that were bound in the file system that we see at `path`. When the kernel cannot tell, all that still listen.
std::set<uint32_t> SocketsOfThisFileSystem(const std::string& path)
{
    const auto listening = ListeningSockets();
    if (!listening.has_value()) {
        return SocketsBoundAt(path);
    }
    struct stat directory {};
    std::set<uint32_t> sockets;
    if (stat(fs::path(path).parent_path().c_str(), &directory) == 0) {
        for (const UnixSocket& socket : *listening) {
            if (socket.device == directory.st_dev) {
                sockets.insert(socket.number);
            }
        }
    }
    return sockets;
}

}  // namespace

std::vector<ListeningProcess> ListenersAt(const std::string& path)
{
    const std::set<uint32_t> sockets = SocketsBoundAt(path);
    if (sockets.empty()) {
        return {};
    }
    const SocketHolders holders = FindSocketHolders();
    const std::set<uint32_t> here = SocketsOfThisFileSystem(path);
    const std::string ownFiles = LinkTarget("/proc/self/ns/mnt");
    std::vector<ListeningProcess> listeners;
    for (const uint32_t socket : sockets) {
        const std::vector<SocketHolder> found = holders.Of(socket);
        if (found.empty()) {
            // Either we may not look into its owner, or the owner is just ending.
            if (!holders.complete && here.count(socket) > 0) {
                listeners.push_back({path, 0});
            }
        } else if (here.count(socket) > 0 ||
                   LinkTarget(fmt::format("/proc/{}/ns/mnt", found.front().pid)) == ownFiles) {
            listeners.push_back({path, found.front().pid});
        }
    }
    return listeners;
}

std::vector<pid_t> ProcessesWithSocket(uint32_t number)
{
    const std::vector<SocketHolder> holders = FindSocketHolders().Of(number);
    std::vector<pid_t> processes;
    processes.reserve(holders.size());
    for (const SocketHolder& holder : holders) {
        processes.push_back(holder.pid);
    }
    return processes;
}

bool SeesOtherFiles(pid_t pid)
{
    const std::string folder = fmt::format("/proc/{}", pid);
    return !IsSameLink(folder + "/ns/mnt", "/proc/self/ns/mnt") || !IsSameLink(folder + "/root", "/proc/self/root");
}

std::string ValueInFile(const std::string& file, const std::string& key)
{
    std::ifstream in(file);
    for (std::string line; std::getline(in, line);) {
        if (line.compare(0, key.size(), key) == 0) {
            const size_t value = line.find_first_not_of(": \t", key.size());
            return value == std::string::npos ? "" : line.substr(value);
        }
    }
    return "";
}

}  // namespace tools
