#include <fmt/format.h>

#include <cerrno>
#include <cstring>

#include "admission.h"
#include "common/ppc_socket.h"
#include "rules.h"

namespace tools {
namespace {

constexpr char kCheck[] = "connection";

std::string ListenerText(const Facts& facts)
{
    const Listener& listener = *facts.attempt.listener;
    if (facts.isTapped) {
        return fmt::format("a tap, process {} of {}, passes it on", listener.pid, UserText(listener.user.uid));
    }
    return fmt::format("{} of {} listens", Describe(facts.daemon), UserText(listener.user.uid));
}

void AddConnected(const Facts& facts, Diagnosis& diagnosis)
{
    diagnosis.Add(Severity::kOk, kCheck,
                  fmt::format("{} connects to {}: {}", UserText(facts.user.uid), kSocketPath, ListenerText(facts)));
}

void AddNobodyListens(const Facts& facts, Diagnosis& diagnosis)
{
    diagnosis.Add(Severity::kNote, kCheck,
                  fmt::format("nobody listens at {}: {}", kSocketPath, strerror(facts.attempt.connect)));
}

void AddFullQueue(const Facts& facts, Diagnosis& diagnosis)
{
    const std::string waiting =
        facts.waiting.has_value() ? fmt::format("{} connections wait", *facts.waiting) : "connections wait";
    diagnosis.Add(Severity::kFault, kCheck,
                  fmt::format("{} accepts no connections: {} in the queue of {}, which is full", Describe(facts.daemon),
                              waiting, kSocketPath),
                  "", "find out what keeps the daemon from accepting; workers wait in connect meanwhile");
}

const FileInfo* FileAt(const Facts& facts, const std::string& path)
{
    for (const FileInfo* file : {&facts.parent, &facts.directory, &facts.socket}) {
        if (file->path == path) {
            return file;
        }
    }
    return nullptr;
}

std::string RefusalText(const Facts& facts)
{
    const std::string barrier = BarrierOf(facts.attempt);
    const std::string refused = fmt::format("{} may not connect to {}: {}", UserText(facts.user.uid), kSocketPath,
                                            strerror(facts.attempt.connect));
    if (barrier.empty()) {
        return refused + ", although the modes of the files allow it";
    }
    const FileInfo* file = FileAt(facts, barrier);
    const char* verb = barrier == kSocketPath ? "write to" : "enter";
    return fmt::format("{}; it may not {} {}{}", refused, verb, barrier,
                       file == nullptr ? "" : fmt::format(" ({})", Describe(*file)));
}

void AddRefusal(const Facts& facts, Diagnosis& diagnosis)
{
    const Admission admission = AdmissionOf(facts);
    const char* whether = facts.socketHeld == Held::kUnknown ? "; whether a daemon listens is unknown" : "";
    diagnosis.Add(Severity::kFault, kCheck, RefusalText(facts) + whether, admission.repair, admission.advice);
}

}  // namespace

void JudgeConnection(const Facts& facts, Diagnosis& diagnosis)
{
    switch (facts.attempt.connect) {
        case 0:
            return AddConnected(facts, diagnosis);
        case ENOENT:
        case ENOTDIR:
        case ECONNREFUSED:
            return AddNobodyListens(facts, diagnosis);
        case EAGAIN:
            return AddFullQueue(facts, diagnosis);
        case EACCES:
        case EPERM:
            return AddRefusal(facts, diagnosis);
        case EPROTOTYPE:
            diagnosis.Add(Severity::kFault, kCheck,
                          fmt::format("the socket at {} is of another kind: not a daemon's", kSocketPath), "",
                          "end the program to which it belongs, then start the daemon, which replaces the file");
            return;
        default:
            diagnosis.Add(Severity::kFault, kCheck,
                          fmt::format("{} cannot connect to {}: {}", UserText(facts.user.uid), kSocketPath,
                                      strerror(facts.attempt.connect)));
    }
}

}  // namespace tools
