// Searches the schedules of scenarios. See --help.

#include <sched.h>
#include <sys/personality.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "run_log.h"
#include "scenario.h"
#include "scheduler.h"

namespace {

using gaktest::RunLog;
using gaktest::Scenario;

struct Options {
    std::string scenario;
    uint64_t schedules = 500;
    uint64_t firstSeed = 1;
    bool list = false;
    bool wholeSchedule = false;
};

void PrintUsage(FILE* stream)
{
    fputs(
        "Usage: schedule_search [--schedules N] [--seed S] [--whole] SCENARIO\n"
        "       schedule_search --list\n"
        "\n"
        "Runs SCENARIO under N schedules (500) with the seeds S (1), S + 1, ... and stops at the first finding, which\n"
        "it prints with its schedule. The same seed gives the same schedule again.\n"
        "\n"
        "  --schedules N  how many schedules; 1 reproduces the one of the seed\n"
        "  --seed S       the first seed\n"
        "  --whole        print the whole schedule, not only its end\n"
        "  --list         print the names of all scenarios\n"
        "\n"
        "Exit status: 0 without a finding, 1 with one, 2 for a wrong command line. For a scenario that must fail (the\n"
        "tests of the engine itself): 0 when what it expects was found.\n",
        stream);
}

bool Parse(int count, char** words, Options& options)
{
    for (int word = 1; word < count; ++word) {
        const std::string option = words[word];
        const bool hasValue = word + 1 < count;
        if (option == "--list") {
            options.list = true;
        } else if (option == "--whole") {
            options.wholeSchedule = true;
        } else if (option == "--schedules" && hasValue) {
            options.schedules = strtoull(words[++word], nullptr, 10);
        } else if (option == "--seed" && hasValue) {
            options.firstSeed = strtoull(words[++word], nullptr, 10);
        } else if (option[0] != '-' && options.scenario.empty()) {
            options.scenario = option;
        } else {
            return false;
        }
    }
    return options.list || !options.scenario.empty();
}

// The same addresses in every run, and one processor, on which threads hand over faster.
void FixSurroundings(char** words)
{
    const int persona = personality(0xFFFFFFFF);
    if (persona != -1 && (persona & ADDR_NO_RANDOMIZE) == 0 && personality(persona | ADDR_NO_RANDOMIZE) != -1) {
        execv("/proc/self/exe", words);
    }
    const int processor = sched_getcpu();
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(processor < 0 ? 0 : processor, &one);
    sched_setaffinity(0, sizeof(one), &one);
    const rlimit noCore = {0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
}

// A seed and, so that it can be searched well, how long runs of the scenario are.
struct Choice {
    uint64_t seed;
    uint32_t usualLength;
};

[[noreturn]] void RunOnce(const Scenario& scenario, RunLog* log, const Choice& choice)
{
    gaktest::EndWithParent();
    gaktest::StartRun(log, choice.seed, choice.usualLength);
    scenario.run();
    gaktest::EndRun();
}

// What the process could not say itself.
void JudgeEnd(RunLog& log, int status)
{
    if (log.outcome == RunLog::Outcome::kFound || log.outcome == RunLog::Outcome::kPassed) {
        return;
    }
    if (log.outcome == RunLog::Outcome::kExiting && WIFEXITED(status) && WEXITSTATUS(status) == 0) {
        log.outcome = RunLog::Outcome::kPassed;
        return;
    }
    log.outcome = RunLog::Outcome::kFound;
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM) {
        snprintf(log.finding, sizeof(log.finding), "a thread waits where the scheduler does not see it");
    } else if (WIFSIGNALED(status)) {
        snprintf(log.finding, sizeof(log.finding), "the process was ended by signal %d (%s)", WTERMSIG(status),
                 strsignal(WTERMSIG(status)));
    } else {
        snprintf(log.finding, sizeof(log.finding), "the process has left with status %d", WEXITSTATUS(status));
    }
}

bool FindsNothing(const Scenario& scenario, RunLog& log, const Choice& choice)
{
    log.threadCount = 0;
    const pid_t child = fork();
    if (child == 0) {
        RunOnce(scenario, &log, choice);
    }
    int status = 0;
    waitpid(child, &status, 0);
    JudgeEnd(log, status);
    return log.outcome == RunLog::Outcome::kPassed;
}

double Now()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

int Report(const Scenario& scenario, const RunLog& log, uint64_t seed, const Options& options)
{
    const bool isExpected = scenario.expected != nullptr && strstr(log.finding, scenario.expected) != nullptr;
    if (!isExpected || options.wholeSchedule) {
        PrintRun(log, options.wholeSchedule);
    }
    printf("%s: found something with seed %lu (schedule %lu)%s\n", scenario.name, seed, seed - options.firstSeed + 1,
           isExpected ? ", as expected" : "");
    if (!isExpected) {
        printf("again: schedule_search --schedules 1 --seed %lu --whole %s\n", seed, scenario.name);
    }
    return isExpected ? 0 : 1;
}

int Search(const Scenario& scenario, const Options& options)
{
    RunLog* log = gaktest::CreateRunLog();
    if (log == nullptr) {
        perror("mmap");
        return 1;
    }
    if (scenario.prepare != nullptr) {
        scenario.prepare();
    }
    // Its own finding, if any, is found again below.
    FindsNothing(scenario, *log, {0, 0});
    const uint32_t usualLength = log->eventCount;
    const double begin = Now();
    for (uint64_t seed = options.firstSeed; seed < options.firstSeed + options.schedules; ++seed) {
        if (!FindsNothing(scenario, *log, {seed, usualLength})) {
            return Report(scenario, *log, seed, options);
        }
    }
    printf("%s: nothing found in %lu schedules from seed %lu (%.0f per second)\n", scenario.name, options.schedules,
           options.firstSeed, static_cast<double>(options.schedules) / (Now() - begin));
    return scenario.expected == nullptr ? 0 : 1;
}

int RunCommand(const Options& options)
{
    for (const Scenario* scenario = gaktest::scenarios; scenario != nullptr; scenario = scenario->next) {
        if (options.list) {
            printf("%s\n", scenario->name);
        } else if (options.scenario == scenario->name) {
            return Search(*scenario, options);
        }
    }
    if (!options.list) {
        fprintf(stderr, "schedule_search: there is no scenario %s\n", options.scenario.c_str());
        return 2;
    }
    return 0;
}

}  // namespace

int main(int count, char** words)
{
    Options options;
    if (count == 2 && strcmp(words[1], "--help") == 0) {
        PrintUsage(stdout);
        return 0;
    }
    if (!Parse(count, words, options)) {
        PrintUsage(stderr);
        return 2;
    }
    FixSurroundings(words);
    setvbuf(stdout, nullptr, _IOLBF, 0);
    return RunCommand(options);
}
