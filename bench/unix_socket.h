#ifndef GAKPPC_UNIX_SOCKET_H
#define GAKPPC_UNIX_SOCKET_H

#include <functional>
#include <string>

namespace bench {

// Listens at `path`; a detached thread accepts and starts a detached thread for each connection, which runs `serve` on
// its descriptor and closes it afterwards. As the library's server does it.
void ServeEachConnection(const std::string& path, std::function<void(int)> serve);

int ConnectTo(const std::string& path);

}  // namespace bench

#endif
