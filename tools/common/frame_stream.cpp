#include "frame_stream.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace tools {

uint32_t DecodeBigEndian(const uint8_t* bytes)
{
    return static_cast<uint32_t>(bytes[0]) << 24 | static_cast<uint32_t>(bytes[1]) << 16 |
           static_cast<uint32_t>(bytes[2]) << 8 | static_cast<uint32_t>(bytes[3]);
}

Bytes FrameOf(const Bytes& payload)
{
    const auto length = static_cast<uint32_t>(payload.size());
    Bytes frame;
    frame.reserve(kFrameHeaderSize + payload.size());
    for (int shift = 24; shift >= 0; shift -= 8) {
        frame.push_back(static_cast<uint8_t>(length >> shift));
    }
    frame.insert(frame.end(), payload.begin(), payload.end());
    return frame;
}

size_t FrameStream::NextSegment(const uint8_t* data, size_t available) const
{
    if (lost_) {
        return available;
    }
    if (bodyLeft_ > 0) {
        return static_cast<size_t>(std::min<uint64_t>(bodyLeft_, available));
    }
    const size_t missing = kFrameHeaderSize - headerSize_;
    if (available < missing) {
        return 0;
    }
    uint8_t header[kFrameHeaderSize];
    memcpy(header, header_, headerSize_);
    memcpy(header + headerSize_, data, missing);
    const uint32_t length = DecodeBigEndian(header);
    return length > kMaxPayload ? available
                                : static_cast<size_t>(std::min<uint64_t>(missing + uint64_t{length}, available));
}

void FrameStream::Pass(const uint8_t* data, size_t count)
{
    while (count > 0) {
        size_t taken = count;
        if (lost_) {
            Keep(data, count);
            Emit(PieceKind::kFragment);
        } else if (bodyLeft_ > 0) {
            taken = TakeBody(data, count);
        } else {
            taken = TakeHeader(data, count);
        }
        data += taken;
        count -= taken;
    }
}

void FrameStream::End()
{
    if (piece_.wireLength > 0) {
        Emit(PieceKind::kFragment);
    }
}

size_t FrameStream::TakeHeader(const uint8_t* data, size_t count)
{
    const size_t taken = std::min(count, kFrameHeaderSize - headerSize_);
    memcpy(header_ + headerSize_, data, taken);
    headerSize_ += taken;
    Keep(data, taken);
    if (headerSize_ < kFrameHeaderSize) {
        return taken;
    }
    headerSize_ = 0;
    const uint32_t length = DecodeBigEndian(header_);
    if (length > kMaxPayload) {
        lost_ = true;
        if (taken == count) {
            Emit(PieceKind::kFragment);
        }
    } else if (length == 0) {
        Emit(PieceKind::kFrame);
    } else {
        bodyLeft_ = length;
    }
    return taken;
}

size_t FrameStream::TakeBody(const uint8_t* data, size_t count)
{
    const auto taken = static_cast<size_t>(std::min<uint64_t>(count, bodyLeft_));
    Keep(data, taken);
    bodyLeft_ -= taken;
    if (bodyLeft_ == 0) {
        Emit(PieceKind::kFrame);
    }
    return taken;
}

void FrameStream::Keep(const uint8_t* data, size_t count)
{
    const size_t kept = std::min(count, kMaxKept - piece_.bytes.size());
    piece_.bytes.insert(piece_.bytes.end(), data, data + kept);
    piece_.wireLength += count;
}

void FrameStream::Emit(PieceKind kind)
{
    piece_.kind = kind;
    sink_(std::exchange(piece_, {}));
}

}  // namespace tools
