#ifndef GAKPPC_DIAGNOSIS_H
#define GAKPPC_DIAGNOSIS_H

#include <string>
#include <vector>

#include "facts.h"

namespace tools {

enum class Severity {
    kOk,       // as it should be
    kUnknown,  // could not be read
    kNote,     // works, but is worth knowing
    kFault,    // does not work, or will not after the daemon's next start
};

// The outcome of one check.
struct Finding {
    Severity severity = Severity::kOk;
    std::string check;
    std::string text;
    std::string repair;  // a command for root that is known to repair this and to harm nothing that works, or empty
    std::string advice;  // what to do besides, or instead, in words; may be empty
};

struct Diagnosis {
    std::vector<Finding> findings;  // the first one says whether the user can connect
    bool daemonServes = false;

    void Add(Severity severity, const std::string& check, const std::string& text, const std::string& repair = "",
             const std::string& advice = "")
    {
        findings.push_back({severity, check, text, repair, advice});
    }
    bool HasFault() const;
};

// Judges what was found. Looks at nothing else.
Diagnosis Diagnose(const Facts& facts);

}  // namespace tools

#endif
