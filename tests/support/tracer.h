#ifndef GAKPPC_TRACER_H
#define GAKPPC_TRACER_H

#include <gtest/gtest.h>
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace gaktest {

// A thread at a tracepoint.
struct TracepointHit {
    std::string name;
    std::vector<int64_t> arguments;  // widened by their signs
    pid_t thread;
};

// What `message` of a tracepoint points at, as docs/tracepoints.md has it.
struct TracedMessage {
    uint64_t payload;
    uint32_t length;
    uint32_t src_id;
    uint32_t dest_id;
    uint32_t proc_type;
};

// Attaches to the tracepoints of the libgakppc that this process has loaded, in the way of a tracer: it finds them by
// the notes in the library's file, raises their semaphores, places breakpoints and reads the arguments from where the
// notes say. One tracer at a time; no thread may be at a tracepoint when it ends.
class Tracer {
public:
    // Called in the thread that has reached a tracepoint, at that point.
    using Action = std::function<void(const TracepointHit&)>;

    // `names`: which tracepoints. Throws std::runtime_error when the library does not have one of them.
    Tracer(const std::vector<std::string>& names, Action action);
    ~Tracer();
    Tracer(const Tracer&) = delete;
    Tracer& operator=(const Tracer&) = delete;

    // Whether the library was built with tracepoints. Not under the thread sanitizer: what an action may do at a
    // breakpoint, which is a signal, it takes for unsafe.
    static bool CanAttach();
};

// Collects what happens at the tracepoints `names`, in the order in which it does. May be read when the threads that it
// is about have done something later that the test has seen.
class TracepointLog {
public:
    explicit TracepointLog(const std::vector<std::string>& names);

    std::vector<TracepointHit> Hits() const;
    // "NAME ARGUMENT..." each.
    std::vector<std::string> Lines() const;

private:
    mutable std::mutex mutex_;
    std::vector<TracepointHit> hits_;
    Tracer tracer_;
};

}  // namespace gaktest

// In a test of tracepoints.
#define GAKPPC_SKIP_WITHOUT_TRACEPOINTS() \
    if (!gaktest::Tracer::CanAttach()) { \
        GTEST_SKIP() << "the library was built without tracepoints, or the thread sanitizer watches"; \
    }

#endif
