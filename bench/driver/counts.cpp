#include "counts.h"

#include <cstdio>
#include <fstream>
#include <functional>
#include <sstream>
#include <vector>

#include "program.h"

namespace bench {
namespace {

constexpr int kMessages = 1000;

using Words = std::vector<std::string>;

// A tool that runs a program and leaves a count of it in a file.
struct Counter {
    const char* name;
    std::function<Words(const std::string& file)> prefix;
    std::function<bool(const std::string& line, double* count)> isTotal;
};

bool IsCallgrindTotal(const std::string& line, double* count)
{
    return sscanf(line.c_str(), "totals: %lf", count) == 1;
}

// "100.00    0.012    3    4321    12 total", the fifth column only when calls have failed.
bool IsStraceTotal(const std::string& line, double* count)
{
    return line.size() > 6 && line.compare(line.size() - 6, 6, " total") == 0 &&
           sscanf(line.c_str(), "%*f %*f %*f %lf", count) == 1;
}

double CountIn(const Counter& counter, const std::string& file)
{
    std::ifstream lines(file);
    std::string line;
    double count = 0;
    while (std::getline(lines, line)) {
        if (counter.isTotal(line, &count)) {
            return count;
        }
    }
    Fail("no total in " + file);
}

Words operator+(Words left, const Words& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

struct Places {
    std::string programDir;
    std::string socketDir;
    std::string outputDir;
};

// What both sides of `candidate` count while they start, carry `messages` messages, and end.
double CountRun(const Counter& counter, const Places& places, const std::string& candidate, const std::string& command,
                int messages)
{
    const std::string program = places.programDir + "/bench-" + candidate;
    const std::string address = places.socketDir + "/counted";
    const std::string stem = places.outputDir + "/" + counter.name + "." + candidate + "." + command + ".";
    {
        Program daemon(counter.prefix(stem + "daemon") + Words{program, "daemon", address});
        Program worker(counter.prefix(stem + "worker") +
                       Words{program, "worker", address, std::to_string(daemon.Pid())});
        worker.Ask(command, messages);
    }
    return CountIn(counter, stem + "daemon") + CountIn(counter, stem + "worker");
}

double CountPerMessage(const Counter& counter, const Places& places, const std::string& candidate,
                       const std::string& command)
{
    const double once = CountRun(counter, places, candidate, command, kMessages);
    const double twice = CountRun(counter, places, candidate, command, 2 * kMessages);
    return (twice - once) / kMessages;
}

void PrintRow(const Counter& counter, const Places& places, const char* title, const std::string& command,
              const char* goal)
{
    const double floor = CountPerMessage(counter, places, "floor", command);
    const double library = CountPerMessage(counter, places, "gakppc", command);
    printf("%-44s %10.1f %10.1f %7.2f   %s\n", title, floor, library, library / floor, goal);
    fflush(stdout);
}

}  // namespace

void PrintCounts(const std::string& programDir, const std::string& socketDir, const std::string& outputDir)
{
    const Places places = {programDir, socketDir, outputDir};
    const Counter callgrind = {"callgrind",
                               [](const std::string& file) {
                                   return Words{"valgrind", "-q", "--tool=callgrind", "--callgrind-out-file=" + file};
                               },
                               IsCallgrindTotal};
    const Counter strace = {"strace",
                            [](const std::string& file) {
                                return Words{"strace", "-f", "-c", "-o", file};
                            },
                            IsStraceTotal};
    printf("%-44s %10s %10s %7s   %s\n", "count, both sides together", "FLOOR", "library", "ratio", "goal");
    PrintRow(callgrind, places, "instructions of a round trip", "untimed_round_trip", "ratio <= 2.45");
    PrintRow(callgrind, places, "instructions of a one-way heartbeat", "flood", "ratio <= 2.6");
    PrintRow(strace, places, "system calls of a round trip", "untimed_round_trip", "<= 10 calls");
    PrintRow(strace, places, "system calls of a one-way heartbeat", "flood", "<= 6 calls");
}

}  // namespace bench
