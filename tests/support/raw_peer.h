#ifndef GAKPPC_RAW_PEER_H
#define GAKPPC_RAW_PEER_H

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common/fd.h"
#include "deadline.h"

// Peers that speak to the library's sockets with plain system calls and build every byte themselves: nothing here uses
// the library or protobuf, so what the library sends and accepts is judged against something independent of it.
namespace gaktest {

using Bytes = std::vector<uint8_t>;

Bytes ToBytes(const std::string& text);
// "00 00 00 0A ...", for comparisons whose failures can be read.
std::string Hex(const Bytes& bytes);

using tools::Fd;

// "/home/KrovaUser/qel_ppc/" and "/home/KrovaUser/qel_ppc/sock_server_<id>".
extern const char kSocketDir[];
std::string SocketPath(int serverId);

// Connects to the server's socket as a worker would. Invalid, with errno set, when that fails.
Fd RawConnect(int serverId);

// Listens on the server's socket as a daemon would; makes the directory when it is missing and removes a stale socket
// file. Invalid, with errno set, when that fails.
Fd RawListen(int serverId, int backlog = 10);

// Takes one connection. Invalid when the deadline came first.
Fd RawAccept(const Fd& listener, Deadline deadline);

// Two connected sockets.
std::pair<Fd, Fd> SocketPair();

// Blocks until all bytes are in the socket; false when the peer has gone. Raises no SIGPIPE.
bool WriteAll(const Fd& socket, const Bytes& bytes);

// Returns `count` bytes, or fewer when the connection ends or the deadline comes first.
Bytes ReadExactly(const Fd& socket, size_t count, Deadline deadline);

// Whether the peer ends the connection in time (orderly, or with a reset because it left bytes unread) without
// sending another byte.
testing::AssertionResult ExpectEof(const Fd& socket, Deadline deadline);

// Whether the socket has a byte or an end to read in time.
bool WaitReadable(const Fd& socket, Deadline deadline);

// The fields of a PPCMessage.
struct RawMessage {
    uint32_t type = 0;
    uint32_t src_id = 0;
    uint32_t dest_id = 0;
    uint32_t proc_type = 0;
    uint32_t sub_proc_pid = 0;
    uint32_t host_pid = 0;
    std::optional<std::vector<std::string>> lib_names;

    bool operator==(const RawMessage& other) const;
};
std::ostream& operator<<(std::ostream& out, const RawMessage& message);

// A frame: 4-byte big-endian length, then the payload.
Bytes FrameBytes(const Bytes& payload);

// The encoding of a message: fields in the order of their numbers, those with default values left out.
Bytes EncodeMessage(const RawMessage& message);

// What a frame carries for a message: 4-byte little-endian length of the encoding, then the encoding.
Bytes PpcPayload(const RawMessage& message);

// The whole frame of a message.
Bytes PpcFrame(const RawMessage& message);

// The inverse of each. Empty when a byte is out of place: a length that does not fit, an unknown field, a broken
// number, bytes left over.
std::optional<RawMessage> DecodeMessage(const Bytes& encoding);
std::optional<RawMessage> DecodePayload(const Bytes& payload);

// Reads one frame and returns its payload, or the message in it. Empty when the connection ends, the deadline comes
// first or the bytes are wrong. A frame of more than 64 MiB counts as wrong.
std::optional<Bytes> ReadFrame(const Fd& socket, Deadline deadline);
std::optional<RawMessage> ReadPpcFrame(const Fd& socket, Deadline deadline);

}  // namespace gaktest

#endif
