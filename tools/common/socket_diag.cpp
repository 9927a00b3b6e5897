#include "socket_diag.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <linux/unix_diag.h>
#include <sys/socket.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <array>
#include <cstring>

#include "deadline.h"
#include "fd.h"
#include "ppc_socket.h"

namespace tools {
namespace {

constexpr uint32_t kListenState = 10;  // TCP_LISTEN, which Unix sockets use as well
constexpr unsigned kMinorBits = 20;    // of a device number inside the kernel
constexpr std::chrono::seconds kAnswerTime{2};

using Sockets = std::vector<ListeningSocket>;

bool Ask(const Fd& netlink)
{
    struct {
        nlmsghdr header;
        unix_diag_req request;
    } question{};
    question.header.nlmsg_len = sizeof(question);
    question.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    question.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    question.request.sdiag_family = AF_UNIX;
    question.request.udiag_states = 1U << kListenState;
    question.request.udiag_show = UDIAG_SHOW_NAME | UDIAG_SHOW_VFS | UDIAG_SHOW_RQLEN;
    return send(netlink.get(), &question, sizeof(question), 0) == static_cast<ssize_t>(sizeof(question));
}

template <typename T>
T ValueOf(const rtattr* attribute)
{
    T value{};
    memcpy(&value, RTA_DATA(attribute), std::min(sizeof(value), static_cast<size_t>(RTA_PAYLOAD(attribute))));
    return value;
}

void TakeAttribute(const rtattr* attribute, ListeningSocket& socket)
{
    if (attribute->rta_type == UNIX_DIAG_NAME) {
        socket.path.assign(static_cast<const char*>(RTA_DATA(attribute)), RTA_PAYLOAD(attribute));
        socket.path.resize(strnlen(socket.path.c_str(), socket.path.size()));
    } else if (attribute->rta_type == UNIX_DIAG_VFS) {
        const auto file = ValueOf<unix_diag_vfs>(attribute);
        const uint32_t device = file.udiag_vfs_dev;
        socket.device = makedev(device >> kMinorBits, device & ((1U << kMinorBits) - 1));
        socket.inode = file.udiag_vfs_ino;
    } else if (attribute->rta_type == UNIX_DIAG_RQLEN) {
        socket.waiting = ValueOf<unix_diag_rqlen>(attribute).udiag_rqueue;
    }
}

void TakeSocket(const nlmsghdr* header, Sockets& sockets)
{
    const auto* message = static_cast<const unix_diag_msg*>(NLMSG_DATA(header));
    ListeningSocket socket;
    socket.number = message->udiag_ino;
    auto length = static_cast<int>(header->nlmsg_len - NLMSG_LENGTH(sizeof(*message)));
    const auto* attribute = reinterpret_cast<const rtattr*>(message + 1);
    for (; RTA_OK(attribute, length); attribute = RTA_NEXT(attribute, length)) {
        TakeAttribute(attribute, socket);
    }
    sockets.push_back(socket);
}

enum class Answer { kMore, kEnd, kRefused };

Answer TakeAnswer(const char* bytes, size_t size, Sockets& sockets)
{
    const auto* header = reinterpret_cast<const nlmsghdr*>(bytes);
    for (; NLMSG_OK(header, size); header = NLMSG_NEXT(header, size)) {
        if (header->nlmsg_type == NLMSG_DONE) {
            return Answer::kEnd;
        }
        if (header->nlmsg_type != SOCK_DIAG_BY_FAMILY) {
            return Answer::kRefused;
        }
        TakeSocket(header, sockets);
    }
    return Answer::kMore;
}

}  // namespace

std::optional<Sockets> ListeningSockets()
{
    const Fd netlink(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
    if (!netlink.valid() || !Ask(netlink)) {
        return std::nullopt;
    }
    Sockets sockets;
    alignas(nlmsghdr) std::array<char, 32768> buffer{};
    const Deadline deadline(kAnswerTime);
    while (WaitReadable(netlink.get(), deadline)) {
        const ssize_t size = recv(netlink.get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (size <= 0) {
            return std::nullopt;
        }
        const Answer answer = TakeAnswer(buffer.data(), static_cast<size_t>(size), sockets);
        if (answer != Answer::kMore) {
            return answer == Answer::kEnd ? std::optional<Sockets>(sockets) : std::nullopt;
        }
    }
    return std::nullopt;
}

}  // namespace tools
