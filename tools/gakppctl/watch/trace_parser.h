#ifndef GAKPPC_TRACE_PARSER_H
#define GAKPPC_TRACE_PARSER_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>

#include "trace_event.h"

namespace tools {

// Reads what bpftrace prints of the program in trace_program.h, as `bpftrace -f json` does it: one JSON object a line,
// of which those of type "printf", "lost_events" and "map" matter. A message is a line of its own, its payload follows
// in pieces.
class TraceParser {
public:
    using Sink = std::function<void(TraceEvent&&)>;

    explicit TraceParser(Sink sink) : sink_(std::move(sink)) {}

    // Takes the next bytes, in portions of any size.
    void Feed(const char* data, size_t count);

    // No more will come: a message whose last pieces are missing is given out as it is.
    void Finish();

    // Lines that are none of those. They change nothing.
    size_t Rejected() const { return rejected_; }

private:
    void OnLine(const std::string& line);
    bool OnLost(std::optional<uint64_t> lost);
    bool OnTotal(std::optional<uint64_t> total);
    bool OnReport(const std::string& text);
    bool OnConnection(const std::string& text, TraceEvent::Kind kind);
    bool OnMessage(const std::string& text, TraceEvent::Kind kind);
    bool OnPiece(const std::string& text);
    void GiveOut(uint64_t thread);

    Sink sink_;
    std::string line_;
    bool skipping_ = false;  // the rest of a line that is too long
    size_t rejected_ = 0;
    uint64_t reported_ = 0;
    std::map<uint64_t, TraceEvent> unfinished_;  // messages whose pieces are still coming, by thread
};

}  // namespace tools

#endif
