#ifndef GAKPPC_COUNTS_H
#define GAKPPC_COUNTS_H

#include <string>

namespace bench {

// Counts user-space instructions (callgrind) and system calls (strace) of a round trip and of a one-way heartbeat,
// both sides together, for the library and for FLOOR, and prints them. A count is the difference between a run and one
// of twice the length, so that start and end of the programs are not in it. callgrind's files stay in `outputDir`.
void PrintCounts(const std::string& programDir, const std::string& socketDir, const std::string& outputDir);

}  // namespace bench

#endif
