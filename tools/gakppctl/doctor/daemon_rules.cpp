#include <fmt/format.h>

#include <algorithm>

#include "common/ppc_socket.h"
#include "rules.h"

namespace tools {
namespace {

constexpr mode_t kGroupWrite = 0020;

// The socket as the daemon's umask would make it at the next start, against what it is now.
void JudgeUmask(const Facts& facts, Diagnosis& diagnosis)
{
    const bool isOpen = facts.socket.IsThere() && (facts.socket.Mode() & kGroupWrite) != 0;
    const auto umask = facts.daemon.umask;
    if (isOpen && umask.has_value() && (*umask & kGroupWrite) != 0) {
        diagnosis.Add(
            Severity::kNote, "umask",
            fmt::format("the group may connect until the daemon makes its socket anew: its umask is {:04o}", *umask),
            "", "start the daemon with umask 0007 (UMask=0007 in its unit)");
    }
}

void AddFiles(const Facts& facts, Diagnosis& diagnosis)
{
    const std::string umask =
        facts.daemon.umask.has_value() ? fmt::format("; umask of the daemon {:04o}", *facts.daemon.umask) : "";
    diagnosis.Add(Severity::kOk, "files",
                  fmt::format("{} ({}), {} ({}){}", kSocketDir, Describe(facts.directory), kSocketPath,
                              Describe(facts.socket), umask));
}

// Modes that were hardly meant: the group gets as far as the socket and no further, or everybody gets in.
void JudgeAccess(const Facts& facts, Diagnosis& diagnosis)
{
    if (!facts.directory.IsThere() || !facts.DaemonListens() || !facts.socket.IsThere() || facts.directory.hasAcl ||
        facts.socket.hasAcl) {
        return;
    }
    const mode_t directory = facts.directory.Mode();
    const mode_t socket = facts.socket.Mode();
    if ((directory & S_IXOTH) != 0 && (socket & S_IWOTH) != 0) {
        diagnosis.Add(Severity::kNote, "access",
                      fmt::format("{} ({}): every user of this machine may connect, and is believed", kSocketPath,
                                  Describe(facts.socket)));
    } else if (MayHaveMembers(facts.directory.status.st_gid) && (directory & S_IXGRP) != 0 &&
               (socket & kGroupWrite) == 0) {
        diagnosis.Add(Severity::kNote, "access",
                      fmt::format("{} ({}): its group may not connect, although the group {} may enter the directory",
                                  kSocketPath, Describe(facts.socket), GroupName(facts.directory.status.st_gid)),
                      "", "where workers run as other users of the group, the daemon needs umask 0007");
    }
}

void JudgeState(const Facts& facts, Diagnosis& diagnosis)
{
    const ProcessInfo& daemon = facts.daemon;
    if (daemon.state != 'T' && daemon.state != 't') {
        return;
    }
    const bool isTraced = daemon.state == 't';
    diagnosis.Add(Severity::kFault, "daemon",
                  fmt::format("{} is stopped{}: it answers nobody", Describe(daemon), isTraced ? " by a debugger" : ""),
                  facts.daemonIsServing && !isTraced ? fmt::format("kill -CONT {}", daemon.pid) : "");
}

void JudgeDescriptors(const Facts& facts, Diagnosis& diagnosis)
{
    const ProcessInfo& daemon = facts.daemon;
    if (!daemon.descriptors.has_value() || !daemon.descriptorLimit.has_value()) {
        return;
    }
    const std::string text = fmt::format("{} has {} of at most {} descriptors open", Describe(daemon),
                                         *daemon.descriptors, *daemon.descriptorLimit);
    if (*daemon.descriptors * 10 < *daemon.descriptorLimit * 9) {
        diagnosis.Add(Severity::kOk, "limits", text);
        return;
    }
    diagnosis.Add(Severity::kFault, "limits", text, "",
                  fmt::format("give its unit room for all of its workers, LimitNOFILE=; for the process that runs, if "
                              "it can do with more: prlimit --pid {} --nofile=NUMBER",
                              daemon.pid));
}

void JudgeLibrary(const Facts& facts, Diagnosis& diagnosis)
{
    const ProcessInfo& daemon = facts.daemon;
    if (!daemon.loadedLibrary.has_value()) {
        return;
    }
    if (daemon.loadedLibrary->empty()) {
        diagnosis.Add(Severity::kNote, "library",
                      fmt::format("{} has not loaded libgakppc: it is another program than a daemon of this library",
                                  Describe(daemon)));
    } else if (daemon.loadedLibrary->find(" (deleted)") != std::string::npos) {
        diagnosis.Add(
            Severity::kNote, "library",
            fmt::format("{} still runs a library that has been replaced: {}", Describe(daemon), *daemon.loadedLibrary),
            "", "the daemon's next start loads the new one; it ends the sessions of its workers");
    } else {
        diagnosis.Add(
            Severity::kOk, "library",
            fmt::format("{} runs {}; these tools are {}", Describe(daemon), *daemon.loadedLibrary, GAKPPC_VERSION));
    }
}

void AddUnknown(const Facts& facts, Diagnosis& diagnosis)
{
    const ProcessInfo& daemon = facts.daemon;
    std::string unknown;
    const auto add = [&unknown](bool isKnown, const char* what) {
        unknown += isKnown ? "" : (unknown.empty() ? "" : ", ") + std::string(what);
    };
    add(daemon.pid != 0, "its process");
    add(daemon.umask.has_value(), "its umask");
    add(daemon.descriptors.has_value() && daemon.descriptorLimit.has_value(), "its descriptors");
    add(daemon.loadedLibrary.has_value(), "its library");
    if (!unknown.empty()) {
        diagnosis.Add(Severity::kUnknown, "daemon", "unknown of the daemon: " + unknown);
    }
}

void JudgeUnreachable(const Facts& facts, Diagnosis& diagnosis)
{
    bool isHidden = false;
    for (const ProcessInfo& process : facts.unreachable) {
        if (process.pid == 0) {
            isHidden = true;
            continue;
        }
        diagnosis.Add(Severity::kFault, "other daemon",
                      fmt::format("{} listens on a socket that no worker reaches any more: its file {} has been "
                                  "removed or replaced",
                                  Describe(process), kSocketPath),
                      "",
                      facts.IsConnected() ? "see to it that there is one daemon"
                                          : "workers reach it again after its next start, which ends the sessions that "
                                            "it has");
    }
    if (isHidden) {
        diagnosis.Add(Severity::kUnknown, "other daemon",
                      fmt::format("a process that cannot be seen from here listens on another socket that was bound to "
                                  "{}, perhaps in a container",
                                  kSocketPath));
    }
}

}  // namespace

void JudgeDaemon(const Facts& facts, Diagnosis& diagnosis)
{
    AddFiles(facts, diagnosis);
    JudgeAccess(facts, diagnosis);
    JudgeUmask(facts, diagnosis);
    JudgeState(facts, diagnosis);
    JudgeDescriptors(facts, diagnosis);
    JudgeLibrary(facts, diagnosis);
    if (facts.DaemonListens()) {
        AddUnknown(facts, diagnosis);
    }
    JudgeUnreachable(facts, diagnosis);
}

}  // namespace tools
