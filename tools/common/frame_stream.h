#ifndef GAKPPC_FRAME_STREAM_H
#define GAKPPC_FRAME_STREAM_H

#include <cstddef>
#include <cstdint>
#include <functional>

#include "output.h"

namespace tools {

// A frame: 4-byte big-endian payload length, then the payload, of which receivers take up to PPC_MAX_MSG_LEN bytes.
constexpr size_t kFrameHeaderSize = 4;
// Only the beginning of a longer frame is stored.
constexpr size_t kMaxStored = size_t{16} * 1024 * 1024;

uint32_t DecodeBigEndian(const uint8_t* bytes);
Bytes FrameOf(const Bytes& payload);
// The same for a payload of `length` bytes of which only the first are there.
Bytes FrameBeginning(uint32_t length, const Bytes& payload);

// What a stream of bytes consists of.
enum class StreamItemKind : uint8_t {
    kFrame = 1,    // a whole frame
    kFragment = 2  // bytes that are no frame: the stream ended too early, or is out of sync
};

// One of them. `wireLength` counts all its bytes, `bytes` holds them up to kMaxStored.
struct StreamItem {
    StreamItemKind kind = StreamItemKind::kFrame;
    uint64_t wireLength = 0;
    Bytes bytes;

    bool IsTruncated() const { return bytes.size() < wireLength; }
};

// Splits one direction of a connection into frames. After a length above the limit the stream is out of sync: from
// there on all bytes are fragments.
class FrameStream {
public:
    using Sink = std::function<void(StreamItem&&)>;

    explicit FrameStream(Sink sink) : sink_(std::move(sink)) {}

    // How many of the next `available` bytes belong together, so that sending them with one call never splits a length
    // field: the rest of the current frame, or one frame, or what has arrived of it. 0 when not even the length field
    // is complete.
    size_t NextSegment(const uint8_t* data, size_t available) const;

    // Takes the next bytes of the stream, in portions of any size.
    void Feed(const uint8_t* data, size_t count);

    // The stream has ended: incomplete bytes become a fragment.
    void Finish();

private:
    size_t TakeHeader(const uint8_t* data, size_t count);
    size_t TakeBody(const uint8_t* data, size_t count);
    void Append(const uint8_t* data, size_t count);
    void Emit(StreamItemKind kind);

    Sink sink_;
    uint8_t header_[kFrameHeaderSize] = {};
    size_t headerSize_ = 0;
    uint64_t bodyLeft_ = 0;
    bool outOfSync_ = false;
    StreamItem item_;
};

}  // namespace tools

#endif
