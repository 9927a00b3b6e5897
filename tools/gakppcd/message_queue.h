#ifndef GAKPPC_MESSAGE_QUEUE_H
#define GAKPPC_MESSAGE_QUEUE_H

#include <gakppc/qel_message.pb.h>
#include <sys/eventfd.h>

#include <deque>
#include <mutex>
#include <utility>

#include "common/fd.h"
#include "session_peer.h"

namespace tools {

struct ReceivedMessage {
    qel::PPCMessage message;
    Sender sender;  // of an end of a connection, whose it was
};

// Carries messages from the server's receive threads, on which handlers run and must not block, to the main thread,
// which polls Descriptor().
class MessageQueue {
public:
    void Push(ReceivedMessage message)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        messages_.push_back(std::move(message));
        eventfd_write(fd_.get(), 1);
    }

    std::deque<ReceivedMessage> PopAll()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        eventfd_t ignored = 0;
        eventfd_read(fd_.get(), &ignored);
        return std::exchange(messages_, {});
    }

    int Descriptor() const { return fd_.get(); }

private:
    const Fd fd_{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
    std::mutex mutex_;
    std::deque<ReceivedMessage> messages_;
};

}  // namespace tools

#endif
