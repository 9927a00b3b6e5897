#ifndef GAKPPC_CONTROL_CONNECTION_H
#define GAKPPC_CONTROL_CONNECTION_H

#include <cstddef>
#include <functional>
#include <optional>
#include <string>

#include "common/deadline.h"
#include "common/fd.h"

namespace tools {

// Asked again and again, gives the answer to an order as soon as there is one.
using ControlAnswer = std::function<std::optional<std::string>()>;

// Takes an order, a line without its newline. Called for one order at a time.
using ControlHandler = std::function<ControlAnswer(const std::string& line)>;

// One connection to the control socket: lines in, a line of answer for each, in the same order. The next order is not
// read before the last answer has been written, so what is kept in memory is one answer and what fits into one read.
class ControlConnection {
public:
    static constexpr size_t kLongestOrder = 4096;

    explicit ControlConnection(Fd socket) : socket_(std::move(socket)) {}

    int get() const { return socket_.get(); }

    // What poll(2) should wait for. Nothing while an answer is awaited; then only the peer's end counts.
    short WantedEvents() const;

    // Whether the next order has been received already, so that there is nothing to wait for.
    bool HasOrder() const;

    // Does what can be done without waiting, at most one order. False when the connection is over. `ready` is what
    // poll(2) reported.
    bool Serve(short ready, const ControlHandler& handler);

    // Says why and ends the connection when that has been read.
    void Refuse(const std::string& reason);

    // Since when it has brought no whole order and read no answer; nothing while the peer waits for an answer.
    std::optional<Clock::time_point> SilentSince() const;

private:
    bool IsIdle() const { return !answer_ && output_.empty(); }
    void Read();
    void TakeOrder(const ControlHandler& handler);
    void TakeAnswer();
    bool Write();

    Fd socket_;
    std::string input_;
    std::string output_;
    ControlAnswer answer_;    // set while it is awaited
    bool hasNoMore_ = false;  // the peer sends no more
    bool isRefused_ = false;
    Clock::time_point served_ = Clock::now();
};

}  // namespace tools

#endif
