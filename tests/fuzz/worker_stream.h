#ifndef GAKPPC_WORKER_STREAM_H
#define GAKPPC_WORKER_STREAM_H

#include "fuzz_input.h"
#include "qel_message.pb.h"
#include "raw_peer.h"

namespace gaktest {

// Messages that one peer sends, made from an input: each is a length of one byte and so many bytes of encoding, which
// goes out in a frame that is right. What follows the last of them goes out as it is, so that the stream may also end
// inside a frame.
struct WorkerStream {
    std::vector<Bytes> encodings;
    Bytes tail;

    // Replies to more messages than these would fill the socket, which nobody reads before the stream has been handled.
    static constexpr size_t kMostMessages = 8;

    explicit WorkerStream(Input& input)
    {
        const size_t count = input.Byte() % (kMostMessages + 1);
        while (encodings.size() < count && !input.IsEmpty()) {
            encodings.push_back(input.ShortBlock());
        }
        // Fewer bytes than a length field, so that they end the stream without announcing anything.
        tail = input.Block(3);
    }

    Bytes ToBytes() const
    {
        Bytes bytes;
        for (const Bytes& encoding : encodings) {
            Bytes payload = {static_cast<uint8_t>(encoding.size()), 0, 0, 0};
            payload.insert(payload.end(), encoding.begin(), encoding.end());
            const Bytes frame = gaktest::FrameBytes(payload);
            bytes.insert(bytes.end(), frame.begin(), frame.end());
        }
        bytes.insert(bytes.end(), tail.begin(), tail.end());
        return bytes;
    }

    // What the receiver makes of a message: all that could be decoded.
    static qel::PPCMessage Decoded(const Bytes& encoding)
    {
        qel::PPCMessage msg;
        msg.ParseFromArray(encoding.data(), static_cast<int>(encoding.size()));
        return msg;
    }
};

}  // namespace gaktest

#endif
