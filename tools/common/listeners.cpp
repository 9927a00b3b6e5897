#include "listeners.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "socket_diag.h"

namespace tools {
namespace {

namespace fs = std::filesystem;

constexpr unsigned kListening = 0x10000;  // flag of /proc/net/unix

std::string LinkTarget(const fs::path& link)
{
    std::error_code error;
    return fs::read_symlink(link, error).string();
}

// The kernel's numbers of the sockets that listen and were bound at `path`.
std::set<std::string> SocketsBoundAt(const std::string& path)
{
    std::set<std::string> sockets;
    std::ifstream table("/proc/net/unix");
    std::string line;
    std::getline(table, line);
    while (std::getline(table, line)) {
        std::istringstream fields(line);
        std::string address, references, protocol, type, state, inode, boundAt;
        unsigned flags = 0;
        fields >> address >> references >> protocol >> std::hex >> flags >> type >> state >> inode >> boundAt;
        if (!fields.fail() && (flags & kListening) != 0 && boundAt == path) {
            sockets.insert("socket:[" + inode + "]");
        }
    }
    return sockets;
}

bool IsNumber(const std::string& text)
{
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// Which of the sockets a process has open.
std::set<std::string> Opened(const fs::path& process, const std::set<std::string>& sockets)
{
    std::set<std::string> opened;
    std::error_code error;
    for (fs::directory_iterator entry(process / "fd", error), end; !error && entry != end; entry.increment(error)) {
        const std::string target = LinkTarget(entry->path());
        if (sockets.count(target) > 0) {
            opened.insert(target);
        }
    }
    return opened;
}

// Those that were bound in the file system that we see at `path`. When the kernel cannot tell, all that still listen.
std::set<std::string> SocketsOfThisFileSystem(const std::string& path)
{
    const auto listening = ListeningSockets();
    if (!listening.has_value()) {
        return SocketsBoundAt(path);
    }
    struct stat directory {};
    std::set<std::string> sockets;
    if (stat(fs::path(path).parent_path().c_str(), &directory) == 0) {
        for (const ListeningSocket& socket : *listening) {
            if (socket.device == directory.st_dev) {
                sockets.insert(fmt::format("socket:[{}]", socket.number));
            }
        }
    }
    return sockets;
}

bool IsDenied(const fs::path& directory)
{
    return access(directory.c_str(), R_OK) == -1 && errno == EACCES;
}

// Each socket with the processes that have it open.
struct OpenSockets {
    std::multimap<std::string, pid_t> owners;
    bool complete = true;  // the descriptors of every process could be read
};

OpenSockets FindOwners(const std::set<std::string>& sockets)
{
    OpenSockets found;
    std::error_code error;
    for (fs::directory_iterator entry("/proc", error), end; !error && entry != end; entry.increment(error)) {
        const std::string name = entry->path().filename().string();
        if (!IsNumber(name)) {
            continue;
        }
        found.complete = found.complete && !IsDenied(entry->path() / "fd");
        for (const std::string& socket : Opened(entry->path(), sockets)) {
            found.owners.emplace(socket, static_cast<pid_t>(std::stoi(name)));
        }
    }
    return found;
}

}  // namespace

std::vector<ListeningProcess> ListenersAt(const std::string& path)
{
    const std::set<std::string> sockets = SocketsBoundAt(path);
    if (sockets.empty()) {
        return {};
    }
    const OpenSockets open = FindOwners(sockets);
    const std::set<std::string> here = SocketsOfThisFileSystem(path);
    const std::string ownFiles = LinkTarget("/proc/self/ns/mnt");
    std::vector<ListeningProcess> listeners;
    for (const std::string& socket : sockets) {
        const auto [first, last] = open.owners.equal_range(socket);
        if (first == last) {
            // Either we may not look into its owner, or the owner is just ending.
            if (!open.complete && here.count(socket) > 0) {
                listeners.push_back({path, 0});
            }
        } else if (here.count(socket) > 0 || LinkTarget(fmt::format("/proc/{}/ns/mnt", first->second)) == ownFiles) {
            listeners.push_back({path, first->second});
        }
    }
    return listeners;
}

std::vector<pid_t> ProcessesWithSocket(uint32_t number)
{
    std::vector<pid_t> processes;
    for (const auto& [socket, pid] : FindOwners({fmt::format("socket:[{}]", number)}).owners) {
        processes.push_back(pid);
    }
    return processes;
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
