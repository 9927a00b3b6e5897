#ifndef GAKPPC_SCENARIOS_H
#define GAKPPC_SCENARIOS_H

#include <ostream>
#include <vector>

#include "machine.h"

namespace gaktest {

// One machine, and what the doctor says there. Each line of `verdicts`:
//
//     WHO... | EXIT FINDING... [ | REPAIR ]... [ => EXIT FINDING... ]
//
// WHO is a user who runs the doctor (root, krova, member, outsider), or root:NAME for root's doctor --user NAME.
// FINDING is severity:check, for all that is not ok, in their order. The repairs are all that are printed; the verdict
// behind the arrow is what the same doctor says after all of them. $HOME, $DIR, $SOCK, $SAVED and $PID (the daemon's)
// stand for themselves.
//
// Each line of `texts`, where findings of the same severity differ in what they say:
//
//     WHO | PART OF A FINDING'S TEXT OR ADVICE
struct Scenario {
    const char* name;
    void (*make)(Machine& machine);
    const char* verdicts;
    const char* texts = "";
};

inline std::ostream& operator<<(std::ostream& out, const Scenario& scenario)
{
    return out << scenario.name;
}

extern const std::vector<Scenario> kHealthyScenarios;
extern const std::vector<Scenario> kFaultyScenarios;

}  // namespace gaktest

#endif
