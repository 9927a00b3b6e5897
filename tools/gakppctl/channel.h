#ifndef GAKPPC_CHANNEL_H
#define GAKPPC_CHANNEL_H

#include <cstddef>
#include <cstdint>

#include "common/frame_stream.h"

namespace tools {

// Passes the bytes of one direction of a connection on. A receiver takes the length field of a frame for complete as
// soon as a byte of it has come, so it is never split: each frame leaves with a call of its own. Bytes that the sender
// itself has written as less than a length field are passed on as they came.
class Channel {
public:
    // `sink` is told of every frame after it has been passed on. The descriptors do not block and stay the caller's.
    Channel(int source, int destination, FrameStream::Sink sink);

    // Passes on what is there, up to a fair share. With `drain` to the end: for a source whose peer has gone.
    void Pump(bool drain);

    // The destination takes no more at present: the source is not read until it does.
    bool IsBlocked() const { return blocked_; }
    // The source has ended, or the destination is gone, and nothing is left to pass on.
    bool IsFinished() const { return ended_ && used_ == 0; }
    // The destination was found gone. What still comes from the source is nobody's.
    bool LostDestination() const { return lostDestination_; }
    bool HasEnded() const { return ended_; }

    // Tells the sink of an unfinished frame.
    void EndStream() { stream_.End(); }

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
