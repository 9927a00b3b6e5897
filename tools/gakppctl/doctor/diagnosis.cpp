#include "diagnosis.h"

#include <fmt/format.h>

#include <algorithm>

#include "rules.h"

namespace tools {

bool Diagnosis::HasFault() const
{
    return std::any_of(findings.begin(), findings.end(),
                       [](const Finding& finding) { return finding.severity == Severity::kFault; });
}

std::string Describe(const FileInfo& file)
{
    if (!file.IsThere()) {
        return file.IsAbsent() ? "not there" : "mode unknown";
    }
    return fmt::format("mode {:04o}, {}:{}", file.Mode(), UserName(file.status.st_uid), GroupName(file.status.st_gid));
}

std::string Describe(const ProcessInfo& process)
{
    if (process.pid == 0) {
        return "a process that cannot be seen from here";
    }
    return process.name.empty() ? fmt::format("process {}", process.pid)
                                : fmt::format("process {} ({})", process.pid, process.name);
}

Diagnosis Diagnose(const Facts& facts)
{
    Diagnosis diagnosis;
    diagnosis.daemonServes = facts.IsConnected() && !(facts.isTapped && facts.savedHeld == Held::kNo);
    JudgeConnection(facts, diagnosis);
    JudgeParent(facts, diagnosis);
    JudgeDirectory(facts, diagnosis);
    JudgeSocket(facts, diagnosis);
    JudgeTap(facts, diagnosis);
    JudgeDaemon(facts, diagnosis);
    return diagnosis;
}

}  // namespace tools
