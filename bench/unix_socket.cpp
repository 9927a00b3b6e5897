#include "unix_socket.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <thread>

#include "candidate.h"

namespace bench {
namespace {

constexpr int kBacklog = 10;

int OpenSocket()
{
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    Require(fd >= 0, "socket");
    return fd;
}

sockaddr_un AddressOf(const std::string& path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    Require(path.size() < sizeof(address.sun_path), "socket path");
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return address;
}

void AcceptAll(int listenFd, const std::function<void(int)>& serve)
{
    for (;;) {
        const int fd = accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
        Require(fd >= 0, "accept");
        std::thread([fd, serve] {
            serve(fd);
            close(fd);
        }).detach();
    }
}

}  // namespace

void ServeEachConnection(const std::string& path, std::function<void(int)> serve)
{
    const int fd = OpenSocket();
    const sockaddr_un address = AddressOf(path);
    unlink(path.c_str());
    Require(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0, "bind");
    Require(listen(fd, kBacklog) == 0, "listen");
    std::thread(AcceptAll, fd, std::move(serve)).detach();
}

int ConnectTo(const std::string& path)
{
    const int fd = OpenSocket();
    const sockaddr_un address = AddressOf(path);
    Require(connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0, "connect");
    return fd;
}

}  // namespace bench
