#ifndef GAKPPC_CONTROL_FIXTURE_H
#define GAKPPC_CONTROL_FIXTURE_H

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "tool.h"

namespace gaktest {

// Where a daemon of the tests listens for orders unless it is told otherwise (scripts/private-home).
constexpr char kControlPath[] = "/home/gakppcd/control";

inline std::unique_ptr<Tool> StartDaemon(const std::vector<std::string>& arguments = {},
                                         const std::vector<std::string>& environment = {})
{
    auto daemon = std::make_unique<Tool>(kGakppcd, arguments, Tool::Output::kPipe, environment);
    EXPECT_TRUE(daemon->WaitForOut("SERVING"));
    return daemon;
}

// A socket that is no gakppcd: it listens, and a test says what it does.
inline Fd FakeDaemon(const std::string& path)
{
    Fd listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    EXPECT_EQ(bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    EXPECT_EQ(listen(listener.get(), 10), 0);
    return listener;
}

// A worker of the daemon that has reported its start.
inline Fd StartWorker(Tool& daemon, uint32_t device = 0, uint32_t pid = 4711)
{
    Fd worker = RawConnect(kServer);
    EXPECT_TRUE(WriteAll(worker, PpcFrame(FromWorker(0, device, pid))));
    EXPECT_TRUE(
        daemon.WaitForOut("device " + std::to_string(device) + " COMPUTE pid " + std::to_string(pid) + " STARTED"));
    return worker;
}

// A peer of plain system calls on the control socket.
class ControlPeer {
public:
    explicit ControlPeer(const std::string& path = kControlPath)
        : socket_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
        if (connect(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == -1) {
            socket_.Reset();
        }
    }

    const Fd& socket() const { return socket_; }
    bool Send(const std::string& text) const { return WriteAll(socket_, ToBytes(text)); }
    void EndSending() const { shutdown(socket_.get(), SHUT_WR); }

    // The next line with its newline; what has come of it when the connection ends or the deadline comes.
    std::string ReadLine(Deadline deadline = kLimit) const
    {
        std::string line;
        while (line.empty() || line.back() != '\n') {
            const Bytes byte = ReadExactly(socket_, 1, deadline);
            if (byte.empty()) {
                break;
            }
            line += static_cast<char>(byte[0]);
        }
        return line;
    }
    std::string Ask(const std::string& order) const
    {
        EXPECT_TRUE(Send(order + "\n"));
        return ReadLine();
    }

private:
    Fd socket_;
};

}  // namespace gaktest

#endif
