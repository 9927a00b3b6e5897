#include "frame_stream.h"

#include <gakppc/ppc.h>

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
    return FrameBeginning(static_cast<uint32_t>(payload.size()), payload);
}

Bytes FrameBeginning(uint32_t length, const Bytes& payload)
{
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
    if (outOfSync_) {
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
    return length > PPC_MAX_MSG_LEN ? available
                                    : static_cast<size_t>(std::min<uint64_t>(missing + uint64_t{length}, available));
}

void FrameStream::Feed(const uint8_t* data, size_t count)
{
    while (count > 0) {
        size_t taken = count;
        if (outOfSync_) {
            Append(data, count);
            Emit(StreamItemKind::kFragment);
        } else if (bodyLeft_ > 0) {
            taken = TakeBody(data, count);
        } else {
            taken = TakeHeader(data, count);
        }
        data += taken;
        count -= taken;
    }
}

void FrameStream::Finish()
{
    if (item_.wireLength > 0) {
        Emit(StreamItemKind::kFragment);
    }
}

size_t FrameStream::TakeHeader(const uint8_t* data, size_t count)
{
    const size_t taken = std::min(count, kFrameHeaderSize - headerSize_);
    memcpy(header_ + headerSize_, data, taken);
    headerSize_ += taken;
    Append(data, taken);
    if (headerSize_ < kFrameHeaderSize) {
        return taken;
    }
    headerSize_ = 0;
    const uint32_t length = DecodeBigEndian(header_);
    if (length > PPC_MAX_MSG_LEN) {
        outOfSync_ = true;
        if (taken == count) {
            Emit(StreamItemKind::kFragment);
        }
    } else if (length == 0) {
        Emit(StreamItemKind::kFrame);
    } else {
        bodyLeft_ = length;
    }
    return taken;
}

size_t FrameStream::TakeBody(const uint8_t* data, size_t count)
{
    const auto taken = static_cast<size_t>(std::min<uint64_t>(count, bodyLeft_));
    Append(data, taken);
    bodyLeft_ -= taken;
    if (bodyLeft_ == 0) {
        Emit(StreamItemKind::kFrame);
    }
    return taken;
}

void FrameStream::Append(const uint8_t* data, size_t count)
{
    const size_t kept = std::min(count, kMaxStored - item_.bytes.size());
    item_.bytes.insert(item_.bytes.end(), data, data + kept);
    item_.wireLength += count;
}

void FrameStream::Emit(StreamItemKind kind)
{
    item_.kind = kind;
    sink_(std::exchange(item_, {}));
}

}  // namespace tools
