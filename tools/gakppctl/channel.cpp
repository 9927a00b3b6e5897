#include "channel.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace tools {
namespace {

constexpr size_t kBufferSize = size_t{64} * 1024;
constexpr int kFairRounds = 8;

}  // namespace

Channel::Channel(int source, int destination, FrameStream::Sink sink)
    : source_(source), destination_(destination), stream_(std::move(sink)), buffer_(kBufferSize)
{
}

void Channel::Pump(bool drain)
{
    Flush(false);
    for (int round = 0; !blocked_ && !ended_ && (drain || round < kFairRounds); ++round) {
        const Fill fill = Receive();
        // A full buffer may have cut a length field in two; otherwise the sender has written no more than this.
        Flush(fill != Fill::kFull);
        if (fill == Fill::kNothing || (fill == Fill::kSome && !drain)) {
            return;
        }
    }
}

Channel::Fill Channel::Receive()
{
    const size_t room = buffer_.size() - used_;
    ssize_t count = 0;
    do {
        count = recv(source_, buffer_.data() + used_, room, MSG_DONTWAIT);
    } while (count == -1 && errno == EINTR);
    if (count == -1 && errno == EAGAIN) {
        return Fill::kNothing;
    }
    if (count <= 0) {
        ended_ = true;
        return Fill::kEnd;
    }
    used_ += static_cast<size_t>(count);
    return static_cast<size_t>(count) == room ? Fill::kFull : Fill::kSome;
}

void Channel::Flush(bool whole)
{
    size_t sent = 0;
    blocked_ = false;
    while (sent < used_ && !blocked_) {
        size_t wanted = stream_.NextSegment(buffer_.data() + sent, used_ - sent);
        if (wanted == 0 && !whole && !ended_) {
            break;
        }
        wanted = wanted == 0 ? used_ - sent : wanted;
        const ssize_t count = send(destination_, buffer_.data() + sent, wanted, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (count >= 0) {
            stream_.Feed(buffer_.data() + sent, static_cast<size_t>(count));
            sent += static_cast<size_t>(count);
        } else if (errno == EAGAIN) {
            blocked_ = true;
        } else if (errno != EINTR) {
            Drop();
            return;
        }
    }
    memmove(buffer_.data(), buffer_.data() + sent, used_ - sent);
    used_ -= sent;
}

// The sender must notice as it would without us.
void Channel::Drop()
{
    lostDestination_ = true;
    ended_ = true;
    blocked_ = false;
    used_ = 0;
    shutdown(source_, SHUT_RD);
}

}  // namespace tools
