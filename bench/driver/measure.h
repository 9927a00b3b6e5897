#ifndef GAKPPC_MEASURE_H
#define GAKPPC_MEASURE_H

#include <string>
#include <vector>

#include "results.h"

namespace bench {

struct Setup {
    std::string programDir;
    std::string socketDir;
    int rounds;
    int divisor;                             // of how much one round carries
    std::vector<std::string> loadArguments;  // of bench-load
};

// The candidates whose programs were built, the library ("gakppc") and "floor" first.
std::vector<std::string> BuiltCandidates(const std::string& programDir);

// Round trip, burst, floods of all candidates, and connect time of the first two.
void MeasureMessages(const Setup& setup, Results& results);
// Round trip and burst of "gakppc-info", the library writing its INFO lines to /dev/null, and of "floor".
void MeasureWithInfoLog(const Setup& setup, Results& results);
// Daemons of the library and of FLOOR with 1 to 256 workers, loaded by the same program.
void MeasureFleets(const Setup& setup, Results& results);
// One log line, and the loading of the library.
void MeasureLogLines(const Setup& setup, Results& results);
void MeasureLoading(const Setup& setup, Results& results);

}  // namespace bench

#endif
