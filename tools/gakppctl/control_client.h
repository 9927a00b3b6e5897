#ifndef GAKPPC_CONTROL_CLIENT_H
#define GAKPPC_CONTROL_CLIENT_H

#include <CLI/CLI.hpp>
#include <cstdint>
#include <string>

#include "common/deadline.h"
#include "common/fd.h"
#include "common/message.h"
#include "common/ppc_socket.h"

namespace tools {

// Adds --control PATH.
void AddControlOption(CLI::App& app, std::string& path);

// One connection to a daemon's control socket: at `path` or, if that is empty, the default one. What fails, or takes
// longer than the deadline, is an ExitError.
class ControlClient {
public:
    ControlClient(const std::string& path, const Deadline& deadline);

    // The process that listens there.
    Peer Daemon() const { return PeerOf(socket_); }

    // Sends an order and returns the line that answers it, with its newline.
    std::string Ask(const std::string& order);

    // Returns when the daemon has ended the connection.
    void WaitForEnd();

private:
    bool Read(std::string& text);

    const Deadline deadline_;
    const Fd socket_;
};

// An object with a boolean "ok". ExitError for anything else.
Json ParseControlAnswer(const std::string& line);

// A member of an answer. ExitError unless it is a number from 0 to 4294967295.
uint32_t NumberIn(const Json& object, const char* name);

}  // namespace tools

#endif
