#ifndef GAKPPC_CHANNEL_H
#define GAKPPC_CHANNEL_H

#include <cstddef>
#include <cstdint>

#include "common/frame_stream.h"

namespace tools {

// Forwards the bytes of one direction of a connection. A receiver takes the length field of a frame for complete as
// soon as a byte of it has arrived, so it is never split: each frame is sent by a call of its own. Bytes that the
// sender itself wrote as less than a length field are forwarded as they came.
class Channel {
public:
    // `sink` gets every frame after it has been forwarded. The descriptors are non-blocking and stay the caller's.
    Channel(int source, int destination, FrameStream::Sink sink);

    // Forwards what can be read, up to a fair share; with `drain` until the end, for a source whose peer has gone.
    void Pump(bool drain);

    // The destination is full: the source is not read until it has room.
    bool IsBlocked() const { return blocked_; }
    // The source has ended, or the destination is gone, and nothing is left to forward.
    bool IsFinished() const { return ended_ && used_ == 0; }
    // The destination is gone. What still comes from the source is discarded.
    bool LostDestination() const { return lostDestination_; }
    bool HasEnded() const { return ended_; }

    // Gives an unfinished frame to the sink.
    void FinishStream() { stream_.Finish(); }

private:
    enum class Fill { kSome, kFull, kNothing, kEnd };

    Fill Receive();
    void Flush(bool whole);
    void Drop();

    int source_;
    int destination_;
    FrameStream stream_;
    Bytes buffer_;
    size_t used_ = 0;
    bool blocked_ = false;
    bool ended_ = false;
    bool lostDestination_ = false;
};

}  // namespace tools

#endif
