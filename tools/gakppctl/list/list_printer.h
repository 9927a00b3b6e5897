#ifndef GAKPPC_LIST_PRINTER_H
#define GAKPPC_LIST_PRINTER_H

#include <cstddef>
#include <string>
#include <vector>

#include "common/connections.h"
#include "common/output.h"
#include "worker_claims.h"

namespace tools {

// Everything that was seen at one time.
struct Listing {
    SystemTime time;
    ServerSockets found;
    Claims claims;
};

// For each server a line about it, then a table of its connections; those with the most unread bytes come first. What
// is not known is called unknown. No line is longer than `width` or holds a control character, but for colours.
std::vector<std::string> TextLines(const Listing& listing, size_t width, bool coloured);
constexpr size_t kAnyWidth = static_cast<size_t>(-1);

// The same as JSON (docs/schema/list.json), with newlines. A line of its own when there is no server.
std::string JsonLines(const Listing& listing);

}  // namespace tools

#endif
