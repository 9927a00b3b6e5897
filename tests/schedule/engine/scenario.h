#ifndef GAKPPC_SCHEDULE_SCENARIO_H
#define GAKPPC_SCHEDULE_SCENARIO_H

#include <functional>

// A scenario is a short program of a few threads and what must be true of it in every schedule. It runs on the main
// thread of a process of its own, and is over when it returns; threads that are left end with the process.

namespace gaktest {

struct Scenario {
    const char* name;
    const char* expected;  // a part of the finding that must come; null when there must be none
    void (*prepare)();     // once, before the first run and outside of it; may be null
    void (*run)();
    Scenario* next;
};

// All scenarios of the program.
extern Scenario* scenarios;

class ScenarioRegistration {
public:
    explicit ScenarioRegistration(Scenario& scenario)
    {
        scenario.next = scenarios;
        scenarios = &scenario;
    }
};

#define SCENARIO_WITH(name, expected, prepare) \
    static void name(); \
    static gaktest::Scenario scenarioOf##name = {#name, expected, prepare, name, nullptr}; \
    static const gaktest::ScenarioRegistration registrationOf##name(scenarioOf##name); \
    static void name()

// SCENARIO(Name) { ... }: no schedule of it finds anything.
#define SCENARIO(name) SCENARIO_WITH(name, nullptr, nullptr)

// Ends the run with a finding unless `condition` holds.
void Require(bool condition, const char* otherwise);

// Leaves the process through its exit handlers.
[[noreturn]] void ExitProcess();

// Runs `body` in a forked child and returns when that has ended; the child's findings are the run's.
void RunInChild(const std::function<void()>& body);

// Lets this process neither outlive the one that forked it nor wait for ever outside the scheduler's sight.
void EndWithParent();

// How many descriptors and threads this process has, and how many threads the scenario's program still runs.
int OpenDescriptors();
int RunningThreads();

}  // namespace gaktest

#endif
