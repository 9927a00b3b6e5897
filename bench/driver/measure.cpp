#include "measure.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <memory>

#include "program.h"

namespace bench {
namespace {

// Where the library's daemon listens.
constexpr char kLibrarySocket[] = "/home/KrovaUser/qel_ppc/sock_server_19280";

struct Figure {
    const char* name;
    const char* command;
    int count;
    int parameter;
};

constexpr Figure kRoundTrip = {"round_trip", "round_trip", 2000, 0};
constexpr Figure kBurst = {"burst", "burst", 60, 0};
constexpr Figure kConnect = {"connect", "connect", 40, 0};
const std::vector<Figure> kMessageFigures = {
    kRoundTrip,
    kBurst,
    {"flood_heartbeat", "flood", 6000, 0},
    {"flood_1k", "flood", 6000, 1024},
    {"flood_64k", "flood", 1000, 64 * 1024},
    {"flood_1m", "flood", 100, 1024 * 1024},
};
constexpr int kFleetMessages = 4096;

std::string ProgramPath(const Setup& setup, const std::string& candidate)
{
    return setup.programDir + "/bench-" + candidate;
}

// One candidate's daemon and worker.
struct Pair {
    Pair(const std::string& shownName, const std::string& daemonProgram, const std::string& workerProgram,
         const std::string& address)
        : name(shownName),
          daemon({daemonProgram, "daemon", address}),
          worker({workerProgram, "worker", address, std::to_string(daemon.Pid())})
    {
    }

    void Measure(const Figure& figure, int divisor, Results& results)
    {
        results.Add(figure.name, name,
                    worker.Ask(figure.command, std::max(1, figure.count / divisor), figure.parameter));
        daemon.Ask("tidy", 1);
    }

    const std::string name;
    Program daemon;
    Program worker;
};

using Pairs = std::vector<std::unique_ptr<Pair>>;

std::unique_ptr<Pair> StartPair(const Setup& setup, const std::string& candidate)
{
    const std::string program = ProgramPath(setup, candidate);
    return std::make_unique<Pair>(candidate, program, program, setup.socketDir + "/" + candidate);
}

// Candidates alternate within a round; the first round of each figure only warms up.
void MeasureAlternately(const Setup& setup, const Figure& figure, const Pairs& pairs, Results& results)
{
    Results discarded;
    for (int round = 0; round <= setup.rounds; ++round) {
        for (const std::unique_ptr<Pair>& pair : pairs) {
            pair->Measure(figure, setup.divisor, round == 0 ? discarded : results);
        }
    }
}

void MeasureFleet(const Setup& setup, int workers, Results& results)
{
    const std::string floor = ProgramPath(setup, "floor");
    const std::string figure = "fleet_" + std::to_string(workers);
    // FLOOR's worker speaks the library's frames and loads both daemons.
    Pair library("gakppc", ProgramPath(setup, "gakppc"), floor, kLibrarySocket);
    setenv("GAKPPC_BENCH_ONE_HANDLER", "1", 1);  // the library's rule: many receive threads, one handler at a time
    Pair plain("floor", floor, floor, setup.socketDir + "/fleet");
    unsetenv("GAKPPC_BENCH_ONE_HANDLER");
    for (int round = 0; round <= setup.rounds; ++round) {
        for (Pair* pair : {&library, &plain}) {
            Values values = pair->worker.Ask("fleet", std::max(workers, kFleetMessages / setup.divisor), workers);
            values.merge(ProcessSize(pair->daemon.Pid()));
            if (round != 0) {
                results.Add(figure, pair->name, values);
            }
        }
    }
}

}  // namespace

std::vector<std::string> BuiltCandidates(const std::string& programDir)
{
    std::vector<std::string> built;
    for (const char* name : {"gakppc", "floor", "sdbus", "zeromq", "nng", "grpc", "capnproto"}) {
        if (access((programDir + "/bench-" + name).c_str(), X_OK) == 0) {
            built.emplace_back(name);
        }
    }
    return built;
}

void MeasureMessages(const Setup& setup, Results& results)
{
    Pairs pairs;
    for (const std::string& candidate : BuiltCandidates(setup.programDir)) {
        pairs.push_back(StartPair(setup, candidate));
    }
    for (const Figure& figure : kMessageFigures) {
        MeasureAlternately(setup, figure, pairs, results);
    }
    pairs.resize(2);
    MeasureAlternately(setup, kConnect, pairs, results);
}

void MeasureWithInfoLog(const Setup& setup, Results& results)
{
    setenv("GAKPPC_BENCH_LOG", "info", 1);
    Pairs pairs;
    pairs.push_back(StartPair(setup, "gakppc"));
    pairs.push_back(StartPair(setup, "floor"));
    unsetenv("GAKPPC_BENCH_LOG");
    for (const Figure& figure : {Figure{"info_round_trip", "round_trip", kRoundTrip.count, 0},
                                 Figure{"info_burst", "burst", kBurst.count, 0}}) {
        MeasureAlternately(setup, figure, pairs, results);
    }
}

void MeasureFleets(const Setup& setup, Results& results)
{
    for (const int workers : {1, 8, 64, 256}) {
        MeasureFleet(setup, workers, results);
    }
}

void MeasureLogLines(const Setup& setup, Results& results)
{
    Program lines({ProgramPath(setup, "log")});
    const int count = 100000 / setup.divisor;
    for (int round = 0; round < setup.rounds; ++round) {
        for (const char* name : {"off_plain", "off_by_status", "filtered"}) {
            results.Add(std::string("log_") + name, "gakppc", lines.Ask(name, count));
        }
        results.Add("log_written", "gakppc", lines.Ask("written", count / 5));
        results.Add("log_written", "floor", lines.Ask("written_least", count / 5));
    }
}

void MeasureLoading(const Setup& setup, Results& results)
{
    std::vector<std::string> command = {ProgramPath(setup, "load")};
    command.insert(command.end(), setup.loadArguments.begin(), setup.loadArguments.end());
    Program loader(command);
    const int count = std::max(5, 40 / setup.divisor);
    for (int round = 0; round < setup.rounds; ++round) {
        results.Add("load", "gakppc", loader.Ask("load_library", count));
        results.Add("load", "floor", loader.Ask("load_messages", count));
    }
}

}  // namespace bench
