// Runs the benchmark. See scripts/bench.

#include <cstdio>
#include <cstring>
#include <fstream>

#include "counts.h"
#include "measure.h"
#include "program.h"
#include "table.h"

namespace {

constexpr int kRounds = 21;
constexpr int kQuickRounds = 5;
constexpr int kQuickDivisor = 4;

struct Options {
    bool quick = false;
    bool counts = false;
    std::string programDir;
    std::string outputDir;
    std::string socketDir;
    std::vector<std::string> loadArguments;
};

bool Parse(int argc, char** argv, Options& options)
{
    int i = 1;
    for (; i < argc && strncmp(argv[i], "--", 2) == 0; ++i) {
        options.quick |= strcmp(argv[i], "--quick") == 0;
        options.counts |= strcmp(argv[i], "--counts") == 0;
    }
    if (argc - i < 5) {
        return false;
    }
    options.programDir = argv[i];
    options.outputDir = argv[i + 1];
    options.socketDir = argv[i + 2];
    options.loadArguments.assign(argv + i + 3, argv + argc);
    return true;
}

void Progress(const char* what)
{
    fprintf(stderr, "bench: %s\n", what);
}

void Measure(const bench::Setup& setup, bench::Results& results)
{
    Progress("messages");
    MeasureMessages(setup, results);
    Progress("messages with INFO lines");
    MeasureWithInfoLog(setup, results);
    Progress("many workers");
    MeasureFleets(setup, results);
    Progress("log lines");
    MeasureLogLines(setup, results);
    Progress("loading");
    MeasureLoading(setup, results);
}

}  // namespace

int main(int argc, char** argv)
{
    Options options;
    if (!Parse(argc, argv, options)) {
        fprintf(stderr,
                "usage: %s [--quick | --counts] PROGRAM_DIR OUTPUT_DIR SOCKET_DIR LIBRARY MESSAGES DEPENDENCY...\n",
                argv[0]);
        return 2;
    }
    if (options.counts) {
        bench::PrintCounts(options.programDir, options.socketDir, options.outputDir);
        return 0;
    }
    const bench::Setup setup = {options.programDir, options.socketDir, options.quick ? kQuickRounds : kRounds,
                                options.quick ? kQuickDivisor : 1, options.loadArguments};
    bench::Results results;
    Measure(setup, results);
    PrintFloorTable(results);
    PrintPeerTable(results, bench::BuiltCandidates(options.programDir));
    const std::string file = options.outputDir + "/results.tsv";
    std::ofstream tsv(file);
    results.WriteTsv(tsv);
    tsv.close();
    if (!tsv) {
        bench::Fail("cannot write " + file);
    }
    return 0;
}
