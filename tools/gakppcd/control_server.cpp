#include "control_server.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "common/ppc_socket.h"

namespace tools {
namespace {

constexpr std::chrono::seconds kSilence{1};

bool MayGiveOrders(const Peer& peer)
{
    return peer.pid != 0 && (peer.uid == geteuid() || peer.uid == 0);
}

}  // namespace

ControlServer::ControlServer(const std::string& path, ControlHandler handler)
    : handler_(std::move(handler)), socket_(path)
{
}

void ControlServer::AddTo(std::vector<pollfd>& events) const
{
    const bool accepts = !acceptFailed_ && (HasRoom() || FindSilent() != connections_.end());
    events.push_back({socket_.get(), static_cast<short>(accepts ? POLLIN : 0), 0});
    for (const ControlConnection& connection : connections_) {
        events.push_back({connection.get(), connection.WantedEvents(), 0});
    }
}

bool ControlServer::HasWork() const
{
    return std::any_of(connections_.begin(), connections_.end(),
                       [](const ControlConnection& connection) { return connection.HasOrder(); });
}

void ControlServer::Serve()
{
    Accept();
    std::vector<pollfd> events;
    AddTo(events);
    looked_ = Clock::now();
    poll(events.data(), events.size(), 0);
    auto event = events.begin();
    for (auto connection = connections_.begin(); connection != connections_.end();) {
        connection =
            connection->Serve((++event)->revents, handler_) ? std::next(connection) : connections_.erase(connection);
    }
}

void ControlServer::Finish(const Deadline& deadline)
{
    const auto isBusy = [](const ControlConnection& connection) { return connection.WantedEvents() == POLLOUT; };
    Serve();
    while (std::any_of(connections_.begin(), connections_.end(), isBusy) && !deadline.Passed()) {
        std::vector<pollfd> events;
        AddTo(events);
        poll(events.data() + 1, events.size() - 1, deadline.RemainingMs());
        Serve();
    }
}

ControlServer::Connections::const_iterator ControlServer::FindSilent() const
{
    const auto latest = looked_ - kSilence;
    auto found = connections_.end();
    for (auto connection = connections_.begin(); connection != connections_.end(); ++connection) {
        const auto since = connection->SilentSince();
        if (since && *since <= (found == connections_.end() ? latest : *found->SilentSince())) {
            found = connection;
        }
    }
    return found;
}

// A failure other than that nobody waits lasts for longer than a moment: it is tried again with the next event.
void ControlServer::Accept()
{
    acceptFailed_ = false;
    for (auto silent = connections_.cend(); HasRoom() || (silent = FindSilent()) != connections_.end();) {
        Fd socket(accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!socket.valid()) {
            acceptFailed_ = errno != EAGAIN && errno != EINTR && errno != ECONNABORTED;
            return;
        }
        if (!HasRoom()) {
            connections_.erase(silent);
        }
        const bool mayGiveOrders = MayGiveOrders(PeerOf(socket));
        connections_.emplace_back(std::move(socket));
        if (!mayGiveOrders) {
            connections_.back().Refuse("only the daemon's user and root may give orders");
        }
    }
}

}  // namespace tools
