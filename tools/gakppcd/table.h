#ifndef GAKPPC_TABLE_H
#define GAKPPC_TABLE_H

#include <cstddef>
#include <string>
#include <vector>

#include "workers.h"

namespace tools {

// A header and a line for each worker, running ones first, in at most `height` lines of at most `width` columns. When
// they do not fit, the last line counts those that are left out, and all that have ended. Below 66 columns the lines
// are shorter: 34 columns hold them.
std::vector<std::string> TableLines(const WorkerTable::Map& workers, size_t height, size_t width, bool coloured);

}  // namespace tools

#endif
