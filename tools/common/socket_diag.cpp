#include "socket_diag.h"

#include <fmt/format.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <linux/unix_diag.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <functional>
#include <system_error>
#include <thread>
#include <unordered_set>
#include <utility>

#include "deadline.h"
#include "exit_error.h"
#include "ppc_socket.h"

namespace tools {
namespace {

constexpr uint32_t kEstablishedState = 1;  // TCP_ESTABLISHED and TCP_LISTEN, which Unix sockets use as well
constexpr uint32_t kListenState = 10;
constexpr uint32_t kAnyCookie = ~0U;
constexpr uint32_t kShown = UDIAG_SHOW_NAME | UDIAG_SHOW_VFS | UDIAG_SHOW_PEER | UDIAG_SHOW_RQLEN | UDIAG_SHOW_UID;
constexpr unsigned kMinorBits = 20;  // of a device number inside the kernel
constexpr std::chrono::seconds kAnswerTime{2};

using Sockets = std::vector<UnixSocket>;
using TakeSocket = std::function<void(const nlmsghdr*)>;
using TakeAttribute = std::function<void(const rtattr*)>;

bool Ask(const Fd& netlink, const unix_diag_req& request, uint16_t flags)
{
    struct {
        nlmsghdr header;
        unix_diag_req request;
    } question{};
    question.header.nlmsg_len = sizeof(question);
    question.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    question.header.nlmsg_flags = static_cast<uint16_t>(NLM_F_REQUEST | flags);
    question.request = request;
    question.request.sdiag_family = AF_UNIX;
    return send(netlink.get(), &question, sizeof(question), 0) == static_cast<ssize_t>(sizeof(question));
}

enum class Answer { kMore, kEnd, kRefused };

int ErrorIn(const nlmsghdr* header)
{
    const bool isError = header->nlmsg_type == NLMSG_ERROR && header->nlmsg_len >= NLMSG_LENGTH(sizeof(nlmsgerr));
    return isError ? -static_cast<const nlmsgerr*>(NLMSG_DATA(header))->error : EPROTO;
}

Answer ReadAnswer(const char* bytes, size_t size, const TakeSocket& take)
{
    const auto* header = reinterpret_cast<const nlmsghdr*>(bytes);
    for (; NLMSG_OK(header, size); header = NLMSG_NEXT(header, size)) {
        if (header->nlmsg_type == NLMSG_DONE) {
            return Answer::kEnd;
        }
        if (header->nlmsg_type != SOCK_DIAG_BY_FAMILY) {
            errno = ErrorIn(header);
            return Answer::kRefused;
        }
        take(header);
        if ((header->nlmsg_flags & NLM_F_MULTI) == 0) {
            return Answer::kEnd;
        }
    }
    return Answer::kMore;
}

// Asks the kernel; each socket of its answer goes to `take`. False, with errno set, when it gives none.
bool Query(const Fd& netlink, const unix_diag_req& request, uint16_t flags, const TakeSocket& take)
{
    if (!netlink.valid() || !Ask(netlink, request, flags)) {
        return false;
    }
    alignas(nlmsghdr) std::array<char, 32768> buffer{};
    const Deadline deadline(kAnswerTime);
    while (WaitReadable(netlink.get(), deadline)) {
        const ssize_t size = recv(netlink.get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (size <= 0) {
            return false;
        }
        const Answer answer = ReadAnswer(buffer.data(), static_cast<size_t>(size), take);
        if (answer != Answer::kMore) {
            return answer == Answer::kEnd;
        }
    }
    errno = ETIMEDOUT;
    return false;
}

void ForEachAttribute(const nlmsghdr* header, const TakeAttribute& take)
{
    const auto* message = static_cast<const unix_diag_msg*>(NLMSG_DATA(header));
    auto length = static_cast<int>(header->nlmsg_len - NLMSG_LENGTH(sizeof(*message)));
    const auto* attribute = reinterpret_cast<const rtattr*>(message + 1);
    for (; RTA_OK(attribute, length); attribute = RTA_NEXT(attribute, length)) {
        take(attribute);
    }
}

template <typename T>
T ValueOf(const rtattr* attribute)
{
    T value{};
    memcpy(&value, RTA_DATA(attribute), std::min(sizeof(value), static_cast<size_t>(RTA_PAYLOAD(attribute))));
    return value;
}

void SetFile(const rtattr* attribute, UnixSocket& socket)
{
    const auto file = ValueOf<unix_diag_vfs>(attribute);
    const uint32_t device = file.udiag_vfs_dev;
    socket.device = makedev(device >> kMinorBits, device & ((1U << kMinorBits) - 1));
    socket.inode = file.udiag_vfs_ino;
}

void SetAttribute(const rtattr* attribute, UnixSocket& socket)
{
    switch (attribute->rta_type) {
        case UNIX_DIAG_NAME:
            socket.path.assign(static_cast<const char*>(RTA_DATA(attribute)), RTA_PAYLOAD(attribute));
            socket.path.resize(strnlen(socket.path.c_str(), socket.path.size()));
            break;
        case UNIX_DIAG_VFS:
            SetFile(attribute, socket);
            break;
        case UNIX_DIAG_PEER:
            socket.peer = ValueOf<uint32_t>(attribute);
            break;
        case UNIX_DIAG_RQLEN:
            socket.waiting = ValueOf<unix_diag_rqlen>(attribute).udiag_rqueue;
            socket.sendMemory = ValueOf<unix_diag_rqlen>(attribute).udiag_wqueue;
            break;
        case UNIX_DIAG_UID:
            socket.user = ValueOf<uint32_t>(attribute);
            break;
        default:
            break;
    }
}

UnixSocket SocketOf(const nlmsghdr* header)
{
    const auto* message = static_cast<const unix_diag_msg*>(NLMSG_DATA(header));
    UnixSocket socket;
    socket.number = message->udiag_ino;
    socket.listens = message->udiag_state == kListenState;
    ForEachAttribute(header, [&socket](const rtattr* attribute) { SetAttribute(attribute, socket); });
    return socket;
}

// Each one once. The kernel gives them in parts and counts its way to the next part, so that it skips some sockets and
// tells of some again when others have come or gone in between.
std::optional<Sockets> SocketsInStates(const Fd& diag, uint32_t states)
{
    unix_diag_req request{};
    request.udiag_states = states;
    request.udiag_show = kShown;
    Sockets sockets;
    std::unordered_set<uint32_t> numbers;
    const bool answered = Query(diag, request, NLM_F_DUMP, [&](const nlmsghdr* header) {
        if (UnixSocket socket = SocketOf(header); numbers.insert(socket.number).second) {
            sockets.push_back(std::move(socket));
        }
    });
    return answered ? std::optional<Sockets>(std::move(sockets)) : std::nullopt;
}

bool QueryOne(const Fd& diag, uint32_t number, uint32_t show, const TakeSocket& take)
{
    unix_diag_req request{};
    request.udiag_ino = number;
    request.udiag_show = show;
    request.udiag_cookie[0] = request.udiag_cookie[1] = kAnyCookie;
    return Query(diag, request, 0, take);
}

// A socket that was skipped is known by its peer. The peer is elsewhere in the kernel's table, so that hardly ever both
// are skipped.
void AddSkipped(const Fd& diag, Sockets& sockets)
{
    std::unordered_set<uint32_t> known{0};
    for (const UnixSocket& socket : sockets) {
        known.insert(socket.number);
    }
    std::vector<uint32_t> skipped;
    for (const UnixSocket& socket : sockets) {
        if (known.insert(socket.peer).second) {
            skipped.push_back(socket.peer);
        }
    }
    for (const uint32_t number : skipped) {
        QueryOne(diag, number, kShown, [&sockets](const nlmsghdr* header) {
            if (static_cast<const unix_diag_msg*>(NLMSG_DATA(header))->udiag_state == kEstablishedState) {
                sockets.push_back(SocketOf(header));
            }
        });
    }
}

}  // namespace

std::optional<Sockets> ListeningSockets()
{
    return SocketsInStates(OpenSocketDiag(), 1U << kListenState);
}

Fd OpenSocketDiag()
{
    return Fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
}

// A socket stays in the namespace in which it was made. The thread that enters one ends there: who may enter it may not
// always return.
Fd OpenSocketDiagIn(const Fd& network)
{
    Fd diag;
    const auto enter = [&network, &diag] {
        if (setns(network.get(), CLONE_NEWNET) == 0) {
            diag = OpenSocketDiag();
        }
    };
    try {
        std::thread(enter).join();
    } catch (const std::system_error&) {
        return Fd();  // no more threads
    }
    return diag;
}

// The listeners, which nothing else leads to, by themselves: they are few and fit into one part of an answer.
std::optional<Sockets> ListeningAndConnectedSockets(const Fd& diag)
{
    auto sockets = SocketsInStates(diag, 1U << kListenState);
    const auto connected = SocketsInStates(diag, 1U << kEstablishedState);
    if (!sockets.has_value() || !connected.has_value()) {
        return std::nullopt;
    }
    sockets->insert(sockets->end(), connected->begin(), connected->end());
    AddSkipped(diag, *sockets);
    return sockets;
}

std::optional<std::vector<uint32_t>> PendingClients(const Fd& diag, uint32_t listener)
{
    std::vector<uint32_t> clients;
    const bool answered = QueryOne(diag, listener, UDIAG_SHOW_ICONS, [&clients](const nlmsghdr* header) {
        ForEachAttribute(header, [&clients](const rtattr* attribute) {
            if (attribute->rta_type == UNIX_DIAG_ICONS) {
                clients.resize(RTA_PAYLOAD(attribute) / sizeof(uint32_t));
                memcpy(clients.data(), RTA_DATA(attribute), clients.size() * sizeof(uint32_t));
            }
        });
    });
    return answered ? std::optional<std::vector<uint32_t>>(clients) : std::nullopt;
}

}  // namespace tools
