#include "checks.h"

#include <fmt/format.h>
#include <gakppc/qel_message.pb.h>
#include <sys/stat.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <string>

#include "common/ppc_socket.h"
#include "file_checks.h"

namespace tools {
namespace {

constexpr unsigned long kFewDescriptors = 64;  // a daemon has one for each of its workers' connections
constexpr unsigned long kShortQueue = 10;      // what the daemon asks for

unsigned long NumberIn(const std::string& text, int base, unsigned long otherwise)
{
    unsigned long number = otherwise;
    const size_t first = text.find_first_not_of(" \t");
    if (first != std::string::npos) {
        std::from_chars(text.data() + first, text.data() + text.size(), number, base);
    }
    return number;
}

std::string FirstLine(const std::string& file)
{
    std::ifstream in(file);
    std::string line;
    std::getline(in, line);
    return line;
}

DaemonProcess Describe(pid_t pid)
{
    DaemonProcess daemon;
    struct stat process {};
    if (pid == 0 || stat(fmt::format("/proc/{}", pid).c_str(), &process) == -1) {
        return daemon;
    }
    daemon.pid = pid;
    daemon.uid = process.st_uid;
    daemon.umask = static_cast<mode_t>(NumberIn(ValueInFile(fmt::format("/proc/{}/status", pid), "Umask"), 8, 0));
    return daemon;
}

void CheckListeners(Diagnosis& diagnosis, const std::vector<ListeningProcess>& listeners)
{
    if (listeners.empty()) {
        diagnosis.Add(Severity::kNote, "daemon", fmt::format("no daemon listens at {}", kSocketPath));
        return;
    }
    std::string pids;
    for (const ListeningProcess& listener : listeners) {
        pids += (pids.empty() ? "" : ", ") + (listener.pid != 0 ? std::to_string(listener.pid) : "unknown");
    }
    if (listeners.size() == 1) {
        diagnosis.Add(Severity::kOk, "daemon", fmt::format("process {} listens at {}", pids, kSocketPath));
        return;
    }
    diagnosis.Add(Severity::kFault, "daemon",
                  fmt::format("{} sockets were bound at {}, by processes {}: only the last one can be reached",
                              listeners.size(), kSocketPath, pids),
                  "end all but one daemon, then restart that one");
}

void CheckDescriptors(Diagnosis& diagnosis, pid_t pid)
{
    const std::string process = fmt::format("/proc/{}", pid);
    const auto limit = NumberIn(ValueInFile(process + "/limits", "Max open files"), 10, ~0UL);
    std::error_code error;
    const std::filesystem::directory_iterator open(process + "/fd", error);
    const auto used = error ? 0 : static_cast<unsigned long>(std::distance(begin(open), end(open)));
    if (limit < kFewDescriptors || used * 10 >= limit * 9) {
        diagnosis.Add(Severity::kFault, "limits",
                      fmt::format("the daemon has {} of at most {} descriptors open", used, limit),
                      fmt::format("prlimit --pid {} --nofile=1024; LimitNOFILE=1024 in its unit", pid));
    } else {
        diagnosis.Add(Severity::kOk, "limits", fmt::format("{} of {} descriptors used by the daemon", used, limit));
    }
}

void CheckQueueLimit(Diagnosis& diagnosis)
{
    const auto queue = NumberIn(FirstLine("/proc/sys/net/core/somaxconn"), 10, kShortQueue);
    if (queue < kShortQueue) {
        diagnosis.Add(Severity::kFault, "limits", fmt::format("at most {} workers may wait to be accepted", queue),
                      "sysctl -w net.core.somaxconn=4096");
    }
}

// The libraries that a process has mapped, one line each as in /proc/PID/maps.
void CheckVersions(Diagnosis& diagnosis, pid_t pid)
{
    std::string library = "not found";
    std::ifstream maps(fmt::format("/proc/{}/maps", pid));
    for (std::string line; std::getline(maps, line);) {
        const size_t path = line.find('/');
        if (path != std::string::npos && line.find("libgakppc.so") != std::string::npos) {
            library = line.substr(path);
            break;
        }
    }
    if (library.find(" (deleted)") != std::string::npos) {
        diagnosis.Add(Severity::kFault, "versions",
                      fmt::format("the daemon still runs a replaced library: {}", library), "restart the daemon");
        return;
    }
    diagnosis.Add(Severity::kOk, "versions",
                  fmt::format("tools {}, protobuf {}, the daemon's library: {}", GAKPPC_VERSION,
                              google::protobuf::internal::VersionString(GOOGLE_PROTOBUF_VERSION), library));
}

}  // namespace

bool Diagnosis::HasFault() const
{
    return std::any_of(findings.begin(), findings.end(),
                       [](const Finding& finding) { return finding.severity == Severity::kFault; });
}

Diagnosis Diagnose()
{
    Diagnosis diagnosis;
    const std::vector<ListeningProcess> listeners = ListenersAt(kSocketPath);
    const DaemonProcess daemon = Describe(listeners.empty() ? 0 : listeners.front().pid);
    diagnosis.daemonRuns = !listeners.empty();
    if (CheckDirectory(diagnosis, daemon) && !CheckTapLeftover(diagnosis)) {
        CheckSocket(diagnosis, daemon, diagnosis.daemonRuns);
    }
    CheckListeners(diagnosis, listeners);
    CheckQueueLimit(diagnosis);
    if (daemon.pid != 0) {
        CheckDescriptors(diagnosis, daemon.pid);
        CheckVersions(diagnosis, daemon.pid);
    }
    return diagnosis;
}

}  // namespace tools
