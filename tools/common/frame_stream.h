#ifndef GAKPPC_FRAME_STREAM_H
#define GAKPPC_FRAME_STREAM_H

#include <cstddef>
#include <cstdint>
#include <functional>

#include "output.h"

namespace tools {

// A frame: 4-byte big-endian payload length, then the payload. Receivers refuse longer payloads than this one.
constexpr size_t kFrameHeaderSize = 4;
constexpr uint32_t kMaxPayload = 0x40000000;
// Of a longer frame only the beginning is kept to be shown.
constexpr size_t kMaxKept = size_t{16} * 1024 * 1024;

uint32_t DecodeBigEndian(const uint8_t* bytes);
Bytes FrameOf(const Bytes& payload);

// What a stream of bytes is made of.
enum class PieceKind : uint8_t {
    kFrame = 1,    // a whole frame
    kFragment = 2  // bytes that make no frame: the stream ended too early, or its frames can no longer be told apart
};

// One of them. `wireLength` counts all its bytes, `bytes` holds them up to kMaxKept.
struct Piece {
    PieceKind kind = PieceKind::kFrame;
    uint64_t wireLength = 0;
    Bytes bytes;

    bool IsCut() const { return bytes.size() < wireLength; }
};

// Finds the frames in one direction of a connection. After a length above the limit nothing that follows can be told
// apart: from there on all bytes are fragments.
class FrameStream {
public:
    using Sink = std::function<void(Piece&&)>;

    explicit FrameStream(Sink sink) : sink_(std::move(sink)) {}

    // How many of the next `available` bytes belong together, so that passing them on in one call never splits a length
    // field: the rest of the current frame, or one frame, or what has come of it. 0 when not even the length field is
    // complete.
    size_t NextSegment(const uint8_t* data, size_t available) const;

    // Takes the next bytes of the stream, in any portions.
    void Pass(const uint8_t* data, size_t count);

    // The stream has ended: what is left over is a fragment.
    void End();

private:
    size_t TakeHeader(const uint8_t* data, size_t count);
    size_t TakeBody(const uint8_t* data, size_t count);
    void Keep(const uint8_t* data, size_t count);
    void Emit(PieceKind kind);

    Sink sink_;
    uint8_t header_[kFrameHeaderSize] = {};
    size_t headerSize_ = 0;
    uint64_t bodyLeft_ = 0;
    bool lost_ = false;
    Piece piece_;
};

}  // namespace tools

#endif
