#ifndef GAKPPC_TABLE_H
#define GAKPPC_TABLE_H

#include "results.h"

namespace bench {

// The library next to FLOOR: medians, the ratio with its quartiles, and what is to be reached.
void PrintFloorTable(const Results& results);
// The library next to the peers: medians, and in brackets the library's value divided by the peer's.
void PrintPeerTable(const Results& results, const std::vector<std::string>& candidates);

}  // namespace bench

#endif
