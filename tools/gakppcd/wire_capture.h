#ifndef GAKPPC_WIRE_CAPTURE_H
#define GAKPPC_WIRE_CAPTURE_H

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>

#include "common/capture.h"
#include "common/record_queue.h"

struct PpcSession;

namespace tools {

// Writes what the server's sessions carry to a capture: the very bytes, also of what is no message. It learns them from
// the driver's calls, which the library makes through exported functions and this program wraps (driver_calls.cpp).
// A thread of its own writes, so neither a slow file nor a full disk reaches a worker.
//
// What it cannot know: how far a frame had come that its sender never completed. Of that one the length field is
// recorded. A frame to a worker is recorded before it is sent, so that it stands in front of its answer, and therefore
// also when the worker has just gone.
class WireCapture {
public:
    // There is one at a time. Throws ExitError when the file cannot be written.
    explicit WireCapture(const std::string& path);
    ~WireCapture();
    WireCapture(const WireCapture&) = delete;
    WireCapture& operator=(const WireCapture&) = delete;

    // Why the capture is incomplete; empty when it is not, or when that has been told.
    std::string TakeProblem();

    // Writes what is left. Returns whether the capture is complete. When the file's reader takes nothing any more, the
    // process ends with kExitFailed.
    bool Finish();

    // A connection, as its records show it.
    struct Connection {
        uint32_t number = 0;  // 0: none
        Peer worker;
    };

    // Calls `action` with the capture, unless there is none. One thread at a time does, so the records are in the order
    // of their times, and the capture is not destroyed meanwhile.
    static void WithCurrent(const std::function<void(WireCapture&)>& action);

    // For the wrapped calls, by WithCurrent. The first use of a session records its opening. One that is not open has
    // no connection.
    void OnAccepted(const PpcSession* session) { sessions_[session] = {}; }
    Connection Use(const PpcSession* session, int fd);
    void OnBytes(const Connection& connection, Direction direction, StreamItemKind kind, Bytes&& bytes);
    void OnClosed(const PpcSession* session);

private:
    void Push(RecordKind kind, const Connection& connection, Record&& record);
    void OnFailure(const ExitError& error);

    CaptureWriter writer_;
    std::map<const PpcSession*, Connection> sessions_;
    uint32_t lastNumber_ = 0;

    std::mutex problemMutex_;
    std::string problem_;
    bool complete_ = true;

    RecordQueue queue_;  // last: its thread uses what is above
};

}  // namespace tools

#endif
