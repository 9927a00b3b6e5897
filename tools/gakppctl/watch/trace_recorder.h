#ifndef GAKPPC_TRACE_RECORDER_H
#define GAKPPC_TRACE_RECORDER_H

#include <cstdint>
#include <functional>
#include <map>
#include <optional>

#include "common/deadline.h"
#include "common/record.h"
#include "trace_event.h"
#include "watched_process.h"

namespace tools {

// The process that is watched, and what the kernel knows of its connections at this moment.
struct Watched {
    Peer self;
    bool isDaemon = false;    // for connections that have ended before they could be looked at
    bool sharesPids = false;  // knows processes by the same numbers as this one
    std::function<std::optional<WatchedEnd>(int descriptor)> endOf;
};

// Makes records of what the tracer reports. Reports of different processors come in no order, so each is held back for
// kReorderTime and passed on in the order of their times.
class TraceRecorder {
public:
    using Sink = std::function<void(Record&&)>;

    TraceRecorder(Watched watched, Sink sink) : watched_(std::move(watched)), sink_(std::move(sink)) {}

    // Of a connection or a message.
    void Push(TraceEvent&& event);

    // Passes on what has waited long enough; all that there is.
    void PassOn();
    void PassOnAll();

    // Until PassOn has something to do, at most `timeoutMs`.
    int TimeoutMs(int timeoutMs) const;

private:
    struct Waiting {
        Deadline deadline;
        TraceEvent event;
        WatchedEnd end;
    };

    WatchedEnd LookAt(const TraceEvent& event);
    WatchedEnd LookAgain(const TraceEvent& event) const;
    void PassOnFirst();
    uint32_t NumberOf(const TraceEvent& event);
    Record RecordOf(TraceEvent&& event, const WatchedEnd& end);

    Watched watched_;
    Sink sink_;
    std::multimap<uint64_t, Waiting> waiting_;  // by time
    // By descriptor: the sessions that have not ended, according to the reports that have come, and to those that have
    // been passed on.
    std::map<int, WatchedEnd> seen_;
    std::map<int, WatchedEnd> passedOn_;
    std::map<int, uint32_t> connections_;  // by descriptor: the number that is shown
    uint32_t lastNumber_ = 0;
};

}  // namespace tools

#endif
