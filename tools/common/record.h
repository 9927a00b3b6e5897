#ifndef GAKPPC_RECORD_H
#define GAKPPC_RECORD_H

#include <cstdint>
#include <optional>
#include <string>

#include "frame_stream.h"
#include "message.h"
#include "ppc_socket.h"

namespace tools {

enum class Direction : uint8_t { kToDaemon = 0, kToWorker = 1 };

// What a record reports. The numbers are part of the capture format.
enum class RecordKind : uint8_t {
    kOpen = 0,      // a worker has connected
    kFrame = 1,     // a whole frame
    kFragment = 2,  // bytes that are no frame
    kClose = 3      // the connection has ended
};

// One thing that happened on a connection. `direction` and `wireLength` and `bytes` have no meaning for an opened or
// closed connection. `peer` is who sent, or who connected.
struct Record {
    SystemTime time;
    uint32_t connection = 0;
    RecordKind kind = RecordKind::kOpen;
    Direction direction = Direction::kToDaemon;
    Peer peer;
    uint64_t wireLength = 0;
    Bytes bytes;  // fewer than `wireLength`: the frame is cut

    // From a source that knows more than the bytes; captures do not have these.
    std::optional<qel::PPCMessage> known;  // the message's numbers, for a frame that is cut
    std::optional<uint32_t> sendStatus;    // why the message was not sent
};
Record RecordOf(StreamItem&& item);

// The message in a record. Neither message nor problem for an opened or closed connection.
Decoded DecodeRecord(const Record& record);

// How records are printed.
struct RecordStyle {
    bool json = false;
    bool hex = false;
    bool coloured = false;
};

// One or, with hex, two lines. `malformed` is set to whether the record holds no well-formed message.
std::string Show(const Record& record, const RecordStyle& style, bool* malformed = nullptr);

}  // namespace tools

#endif
