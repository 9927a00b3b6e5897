#ifndef GAKPPC_SCHEDULE_LOG_SINK_H
#define GAKPPC_SCHEDULE_LOG_SINK_H

// The device log of a run: writes nothing, and is a scheduling point.

namespace gaktest {

struct LogSink {
    int level = 2;               // warnings and above
    void (*onLine)() = nullptr;  // called for every line, on its thread
    int opened = 0;              // how often vlog_init was called
};

extern LogSink logSink;

}  // namespace gaktest

#endif
