#ifndef GAKPPC_STANDARD_FDS_H
#define GAKPPC_STANDARD_FDS_H

namespace tools {

// Opens /dev/null for each of the descriptors 0, 1 and 2 that is closed, so that no socket or file gets such a number
// and is written to as standard output. Call it first of all. Returns false when standard output was closed.
bool OpenMissingStandardFds();

}  // namespace tools

#endif
