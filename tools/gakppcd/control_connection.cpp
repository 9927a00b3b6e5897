#include "control_connection.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <utility>

#include "control_answer.h"

namespace tools {

short ControlConnection::WantedEvents() const
{
    if (!output_.empty()) {
        return POLLOUT;
    }
    return IsIdle() && !hasNoMore_ && !HasOrder() ? POLLIN : 0;
}

bool ControlConnection::HasOrder() const
{
    return IsIdle() && !isRefused_ && input_.find('\n') != std::string::npos;
}

std::optional<Clock::time_point> ControlConnection::SilentSince() const
{
    return answer_ ? std::nullopt : std::optional<Clock::time_point>(served_);
}

bool ControlConnection::Serve(short ready, const ControlHandler& handler)
{
    const bool peerHasGone = (ready & POLLERR) != 0 || (!IsIdle() && (ready & POLLHUP) != 0);
    if (peerHasGone) {
        return false;
    }
    if (ready != 0 && IsIdle() && !HasOrder()) {
        Read();
    }
    TakeOrder(handler);
    TakeAnswer();
    return Write() && !(IsIdle() && (isRefused_ || (hasNoMore_ && !HasOrder())));
}

void ControlConnection::Refuse(const std::string& reason)
{
    output_ += RefusalText(reason) + "\n";
    isRefused_ = true;
}

// One read for each call, so that no peer keeps the others waiting.
void ControlConnection::Read()
{
    char buffer[kLongestOrder + 1];
    const ssize_t count = recv(socket_.get(), buffer, sizeof(buffer), MSG_DONTWAIT);
    if (count == -1 && (errno == EAGAIN || errno == EINTR)) {
        return;
    }
    hasNoMore_ = count <= 0;
    input_.append(buffer, count > 0 ? static_cast<size_t>(count) : 0);
    const bool isWhole = input_.find('\n') != std::string::npos;
    if (!isWhole && input_.size() > kLongestOrder) {
        Refuse(fmt::format("an order has at most {} bytes", kLongestOrder));
    } else if (!isWhole && hasNoMore_ && !input_.empty()) {
        Refuse("the last order has no newline at its end");
    }
}

void ControlConnection::TakeOrder(const ControlHandler& handler)
{
    if (!HasOrder()) {
        return;
    }
    const size_t end = input_.find('\n');
    const std::string line = input_.substr(0, end);
    input_.erase(0, end + 1);
    if (line.size() > kLongestOrder) {
        Refuse(fmt::format("an order has at most {} bytes", kLongestOrder));
    } else {
        answer_ = handler(line);
    }
}

void ControlConnection::TakeAnswer()
{
    if (!answer_) {
        return;
    }
    if (const auto text = answer_()) {
        output_ = *text + "\n";
        answer_ = nullptr;
    }
}

bool ControlConnection::Write()
{
    if (output_.empty()) {
        return true;
    }
    const ssize_t count = send(socket_.get(), output_.data(), output_.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (count == -1) {
        return errno == EAGAIN || errno == EINTR;
    }
    output_.erase(0, static_cast<size_t>(count));
    served_ = output_.empty() ? Clock::now() : served_;
    return true;
}

}  // namespace tools
