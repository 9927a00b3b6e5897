#ifndef GAKPPC_GAK_LIMITS_H
#define GAKPPC_GAK_LIMITS_H

/// @file
/// Numbers that daemon and workers agree on.

#include <cstdint>

namespace qel {

/// Device numbers 0 to 3 are valid.
constexpr uint32_t MAX_DEVNUM_PER_OS = 4;

/// The one server id that every client connects to and names as the destination of its messages.
constexpr uint32_t kPpcServerId = 0x4B50;

}  // namespace qel

#endif
