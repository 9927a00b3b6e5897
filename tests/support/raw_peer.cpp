#include "raw_peer.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ostream>

namespace gaktest {
namespace {

constexpr mode_t kSocketDirMode = 0350;
constexpr size_t kLengthFieldSize = 4;
constexpr size_t kLongestFrame = size_t{64} * 1024 * 1024;

// Wire types of the encoding, and the field numbers of PPCMessage and of the list in it.
constexpr uint32_t kVarint = 0;
constexpr uint32_t kLengthDelimited = 2;
enum FieldNumber : uint32_t {
    kType = 1,
    kSrcId = 2,
    kDestId = 3,
    kProcType = 4,
    kSubProcPid = 5,
    kHostPid = 6,
    kLibNames = 7,
};
constexpr uint32_t kLibName = 1;

sockaddr_un SocketAddress(int serverId)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = SocketPath(serverId);
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    return address;
}

Fd NewSocket()
{
    return Fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
}

// Waits for input. False when the deadline comes first.
bool WaitForInput(int fd, Deadline deadline)
{
    pollfd wanted{fd, POLLIN, 0};
    int ready = 0;
    do {
        ready = poll(&wanted, 1, deadline.RemainingMs());
    } while (ready == -1 && errno == EINTR);
    return ready == 1;
}

void PutVarint(uint64_t value, Bytes& out)
{
    for (; value >= 0x80; value >>= 7) {
        out.push_back(static_cast<uint8_t>(value | 0x80));
    }
    out.push_back(static_cast<uint8_t>(value));
}

void PutNumber(uint32_t field, uint32_t value, Bytes& out)
{
    if (value != 0) {
        PutVarint(field << 3 | kVarint, out);
        PutVarint(value, out);
    }
}

void PutBytes(uint32_t field, const Bytes& value, Bytes& out)
{
    PutVarint(field << 3 | kLengthDelimited, out);
    PutVarint(value.size(), out);
    out.insert(out.end(), value.begin(), value.end());
}

// Reads an encoding from front to back. After a failure every read fails.
class Reader {
public:
    explicit Reader(const Bytes& bytes) : bytes_(bytes) {}

    bool AtEnd() const { return at_ == bytes_.size(); }

    bool Varint(uint64_t& value)
    {
        value = 0;
        for (unsigned shift = 0; shift < 64 && at_ < bytes_.size(); shift += 7) {
            const uint8_t byte = bytes_[at_++];
            value |= static_cast<uint64_t>(byte & 0x7F) << shift;
            if ((byte & 0x80) == 0) {
                return true;
            }
        }
        return Fail();
    }

    bool Number(uint32_t& value)
    {
        uint64_t wide = 0;
        if (!Varint(wide)) {
            return false;
        }
        value = static_cast<uint32_t>(wide);
        return true;
    }

    bool LengthDelimited(Bytes& value)
    {
        uint64_t length = 0;
        if (!Varint(length) || length > bytes_.size() - at_) {
            return Fail();
        }
        const auto first = bytes_.begin() + static_cast<ptrdiff_t>(at_);
        value.assign(first, first + static_cast<ptrdiff_t>(length));
        at_ += length;
        return true;
    }

private:
    bool Fail()
    {
        at_ = bytes_.size();
        return false;
    }

    const Bytes& bytes_;
    size_t at_ = 0;
};

bool DecodeLibNames(const Bytes& encoding, std::vector<std::string>& names)
{
    Reader reader(encoding);
    while (!reader.AtEnd()) {
        uint32_t tag = 0;
        Bytes name;
        if (!reader.Number(tag) || tag != (kLibName << 3 | kLengthDelimited) || !reader.LengthDelimited(name)) {
            return false;
        }
        names.emplace_back(name.begin(), name.end());
    }
    return true;
}

uint32_t* NumberField(RawMessage& message, uint32_t field)
{
    switch (field) {
        case kType:
            return &message.type;
        case kSrcId:
            return &message.src_id;
        case kDestId:
            return &message.dest_id;
        case kProcType:
            return &message.proc_type;
        case kSubProcPid:
            return &message.sub_proc_pid;
        case kHostPid:
            return &message.host_pid;
        default:
            return nullptr;
    }
}

bool DecodeField(Reader& reader, RawMessage& message)
{
    uint32_t tag = 0;
    if (!reader.Number(tag)) {
        return false;
    }
    if (tag == (kLibNames << 3 | kLengthDelimited)) {
        Bytes list;
        if (!message.lib_names.has_value()) {
            message.lib_names.emplace();
        }
        return reader.LengthDelimited(list) && DecodeLibNames(list, *message.lib_names);
    }
    uint32_t* number = (tag & 7) == kVarint ? NumberField(message, tag >> 3) : nullptr;
    return number != nullptr && reader.Number(*number);
}

}  // namespace

const char kSocketDir[] = "/home/KrovaUser/qel_ppc/";

std::string SocketPath(int serverId)
{
    return kSocketDir + std::string("sock_server_") + std::to_string(serverId);
}

Bytes ToBytes(const std::string& text)
{
    return Bytes(text.begin(), text.end());
}

std::string Hex(const Bytes& bytes)
{
    std::string text;
    for (const uint8_t byte : bytes) {
        char digits[4];
        snprintf(digits, sizeof(digits), "%02X", byte);
        text += (text.empty() ? "" : " ") + std::string(digits);
    }
    return text;
}

Fd RawConnect(int serverId)
{
    Fd socket = NewSocket();
    const sockaddr_un address = SocketAddress(serverId);
    if (connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == -1) {
        const int error = errno;
        socket.Reset();
        errno = error;
    }
    return socket;
}

Fd RawListen(int serverId, int backlog)
{
    Fd socket = NewSocket();
    const sockaddr_un address = SocketAddress(serverId);
    if (mkdir(kSocketDir, kSocketDirMode) == -1 && errno != EEXIST) {
        return Fd();
    }
    unlink(address.sun_path);
    if (bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == -1 ||
        listen(socket.get(), backlog) == -1) {
        const int error = errno;
        socket.Reset();
        errno = error;
    }
    return socket;
}

Fd RawAccept(const Fd& listener, Deadline deadline)
{
    return WaitForInput(listener.get(), deadline) ? Fd(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC)) : Fd();
}

std::pair<Fd, Fd> SocketPair()
{
    int fds[2] = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) == -1) {
        ADD_FAILURE() << "socketpair: " << strerror(errno);
    }
    return {Fd(fds[0]), Fd(fds[1])};
}

bool WriteAll(const Fd& socket, const Bytes& bytes)
{
    size_t written = 0;
    while (written < bytes.size()) {
        const ssize_t result = send(socket.get(), bytes.data() + written, bytes.size() - written, MSG_NOSIGNAL);
        if (result == -1 && errno != EINTR) {
            return false;
        }
        written += result > 0 ? static_cast<size_t>(result) : 0;
    }
    return true;
}

Bytes ReadExactly(const Fd& socket, size_t count, Deadline deadline)
{
    Bytes bytes(count);
    size_t received = 0;
    while (received < count && WaitForInput(socket.get(), deadline)) {
        const ssize_t result = recv(socket.get(), bytes.data() + received, count - received, 0);
        if (result == 0 || (result == -1 && errno != EINTR)) {
            break;
        }
        received += result > 0 ? static_cast<size_t>(result) : 0;
    }
    bytes.resize(received);
    return bytes;
}

testing::AssertionResult ExpectEof(const Fd& socket, Deadline deadline)
{
    if (!WaitForInput(socket.get(), deadline)) {
        return testing::AssertionFailure() << "the connection is still open";
    }
    uint8_t byte = 0;
    const ssize_t result = recv(socket.get(), &byte, 1, 0);
    if (result > 0) {
        return testing::AssertionFailure() << "another byte came: " << Hex({byte});
    }
    if (result == -1 && errno != ECONNRESET) {
        return testing::AssertionFailure() << "recv: " << strerror(errno);
    }
    return testing::AssertionSuccess();
}

bool WaitReadable(const Fd& socket, Deadline deadline)
{
    return WaitForInput(socket.get(), deadline);
}

bool RawMessage::operator==(const RawMessage& other) const
{
    return type == other.type && src_id == other.src_id && dest_id == other.dest_id && proc_type == other.proc_type &&
           sub_proc_pid == other.sub_proc_pid && host_pid == other.host_pid && lib_names == other.lib_names;
}

std::ostream& operator<<(std::ostream& out, const RawMessage& message)
{
    out << "{type " << message.type << ", src_id " << message.src_id << ", dest_id " << message.dest_id
        << ", proc_type " << message.proc_type << ", sub_proc_pid " << message.sub_proc_pid << ", host_pid "
        << message.host_pid;
    if (message.lib_names.has_value()) {
        out << ", lib_names";
        for (const std::string& name : *message.lib_names) {
            out << " \"" << name << '"';
        }
    }
    return out << '}';
}

Bytes FrameBytes(const Bytes& payload)
{
    const auto length = static_cast<uint32_t>(payload.size());
    Bytes frame;
    frame.reserve(sizeof(length) + payload.size());
    for (const int shift : {24, 16, 8, 0}) {
        frame.push_back(static_cast<uint8_t>(length >> shift));
    }
    frame.insert(frame.end(), payload.begin(), payload.end());
    return frame;
}

Bytes EncodeMessage(const RawMessage& message)
{
    Bytes out;
    PutNumber(kType, message.type, out);
    PutNumber(kSrcId, message.src_id, out);
    PutNumber(kDestId, message.dest_id, out);
    PutNumber(kProcType, message.proc_type, out);
    PutNumber(kSubProcPid, message.sub_proc_pid, out);
    PutNumber(kHostPid, message.host_pid, out);
    if (message.lib_names.has_value()) {
        Bytes list;
        for (const std::string& name : *message.lib_names) {
            PutBytes(kLibName, ToBytes(name), list);
        }
        PutBytes(kLibNames, list, out);
    }
    return out;
}

Bytes PpcPayload(const RawMessage& message)
{
    const Bytes encoding = EncodeMessage(message);
    const auto length = static_cast<uint32_t>(encoding.size());
    Bytes payload;
    payload.reserve(sizeof(length) + encoding.size());
    for (const int shift : {0, 8, 16, 24}) {
        payload.push_back(static_cast<uint8_t>(length >> shift));
    }
    payload.insert(payload.end(), encoding.begin(), encoding.end());
    return payload;
}

Bytes PpcFrame(const RawMessage& message)
{
    return FrameBytes(PpcPayload(message));
}

std::optional<RawMessage> DecodeMessage(const Bytes& encoding)
{
    RawMessage message;
    Reader reader(encoding);
    while (!reader.AtEnd()) {
        if (!DecodeField(reader, message)) {
            return std::nullopt;
        }
    }
    return message;
}

std::optional<RawMessage> DecodePayload(const Bytes& payload)
{
    if (payload.size() < kLengthFieldSize) {
        return std::nullopt;
    }
    const uint32_t length = static_cast<uint32_t>(payload[0]) | static_cast<uint32_t>(payload[1]) << 8 |
                            static_cast<uint32_t>(payload[2]) << 16 | static_cast<uint32_t>(payload[3]) << 24;
    if (length != payload.size() - kLengthFieldSize) {
        return std::nullopt;
    }
    return DecodeMessage(Bytes(payload.begin() + kLengthFieldSize, payload.end()));
}

std::optional<Bytes> ReadFrame(const Fd& socket, Deadline deadline)
{
    const Bytes field = ReadExactly(socket, kLengthFieldSize, deadline);
    if (field.size() != kLengthFieldSize) {
        return std::nullopt;
    }
    const size_t length = static_cast<size_t>(field[0]) << 24 | static_cast<size_t>(field[1]) << 16 |
                          static_cast<size_t>(field[2]) << 8 | static_cast<size_t>(field[3]);
    if (length > kLongestFrame) {
        return std::nullopt;
    }
    Bytes payload = ReadExactly(socket, length, deadline);
    if (payload.size() != length) {
        return std::nullopt;
    }
    return payload;
}

std::optional<RawMessage> ReadPpcFrame(const Fd& socket, Deadline deadline)
{
    const std::optional<Bytes> payload = ReadFrame(socket, deadline);
    return payload.has_value() ? DecodePayload(*payload) : std::nullopt;
}

}  // namespace gaktest
