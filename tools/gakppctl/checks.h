#ifndef GAKPPC_CHECKS_H
#define GAKPPC_CHECKS_H

#include <string>
#include <vector>

namespace tools {

enum class Severity {
    kOk,     // as it should be
    kNote,   // works, but is worth knowing
    kFault,  // something does not work, or will not stay so
};

// The outcome of one check. `repair` is a command or an instruction, empty when nothing is to be done.
struct Finding {
    Severity severity = Severity::kOk;
    std::string check;
    std::string text;
    std::string repair;
};

struct Diagnosis {
    std::vector<Finding> findings;
    bool daemonRuns = false;

    void Add(Severity severity, const std::string& check, const std::string& text, const std::string& repair = "")
    {
        findings.push_back({severity, check, text, repair});
    }
    bool HasFault() const;
};

// Looks at this machine. Nothing is changed and, unless a killed tap has left files, nobody is connected to.
Diagnosis Diagnose();

}  // namespace tools

#endif
