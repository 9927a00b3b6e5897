#ifndef GAKPPC_TRACE_EVENT_H
#define GAKPPC_TRACE_EVENT_H

#include <gakppc/qel_message.pb.h>
#include <sys/types.h>

#include <cstdint>
#include <optional>

#include "common/output.h"

namespace tools {

// What a tracepoint of the watched process has reported, or the tracer of itself.
struct TraceEvent {
    enum class Kind {
        kAttached,  // the tracer: from here on nothing is missed
        kLost,      // the tracer: `lost` reports did not reach it
        kTotal,     // the tracer, at its end: `lost` connections and messages have not been reported in all
        kOpened,
        kEnded,
        kSent,
        kReceived,
    };

    Kind kind = Kind::kAttached;
    uint64_t time = 0;  // nanoseconds of CLOCK_BOOTTIME
    int fd = -1;
    uint64_t lost = 0;

    // Opened and ended: the process at the other end, with the number that the watched process knows it by; 0: unknown.
    pid_t peer = 0;

    // Sent and received.
    uint32_t status = 0;
    uint64_t length = 0;      // of the payload
    Bytes payload;            // its beginning
    qel::PPCMessage message;  // its numbers, as the arguments of the tracepoint have them
};

}  // namespace tools

#endif
