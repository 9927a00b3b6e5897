#include "relay.h"

#include <fmt/format.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <utility>

#include "common/exit_error.h"

namespace tools {
namespace {

constexpr int kEvents = 64;
constexpr int kRetryMs = 1;     // the daemon's queue was full
constexpr int kResumeMs = 100;  // no descriptor was left

}  // namespace

struct Relay::Connection {
    uint32_t number = 0;
    End worker;
    End daemon;
    std::optional<Channel> toDaemon;  // both once the daemon has been reached
    std::optional<Channel> toWorker;
    bool closed = false;
};

Relay::Relay(int listener, const char* daemonPath, Sink sink)
    : listener_(listener), daemonPath_(daemonPath), sink_(std::move(sink)), epoll_(epoll_create1(EPOLL_CLOEXEC))
{
    Watch(listener_, &listener_);
}

Relay::~Relay() = default;

void Relay::Watch(int fd, void* mark)
{
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.ptr = mark;
    if (epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event) == -1) {
        throw ExitError(kExitFailed, fmt::format("epoll_ctl: {}", strerror(errno)));
    }
}

void Relay::SetListener(int listener)
{
    AcceptAll();
    PauseAccepting(true);
    listener_ = listener;
    refusing_ = false;
    PauseAccepting(false);
}

void Relay::Refuse()
{
    shutdown(listener_, SHUT_RD);
    AcceptAll();
    PauseAccepting(true);
    refusing_ = true;
}

bool Relay::Step(int timeoutMs)
{
    epoll_event events[kEvents];
    const int wait = pendingConnects_ > 0 ? kRetryMs : acceptingPaused_ ? kResumeMs : timeoutMs;
    const int count = epoll_wait(epoll_.get(), events, kEvents, std::min(wait, timeoutMs));
    bool woken = count <= 0;
    bool accept = acceptingPaused_ && !refusing_;
    for (int i = 0; i < count; ++i) {
        void* const mark = events[i].data.ptr;
        if (mark == &listener_) {
            accept = true;
        } else if (mark == nullptr) {
            woken = true;
        } else {
            Handle(*static_cast<End*>(mark), events[i].events);
        }
    }
    if (accept) {
        PauseAccepting(false);
        AcceptAll();
    }
    if (pendingConnects_ > 0) {
        ConnectPending();
    }
    if (std::exchange(someClosed_, false)) {
        // Not earlier: events of this round may still point at them.
        connections_.remove_if([](const auto& connection) { return connection->closed; });
    }
    return woken;
}

void Relay::AcceptAll()
{
    for (;;) {
        Fd fd(accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!fd.valid()) {
            PauseAccepting(errno == EMFILE || errno == ENFILE || errno == ENOMEM);
            return;
        }
        auto connection = std::make_unique<Connection>();
        connection->number = ++lastNumber_;
        connection->worker = {connection.get(), true, std::move(fd), {}};
        connection->daemon = {connection.get(), false, Fd(), {}};
        connection->worker.peer = PeerOf(connection->worker.fd);
        Report(*connection, RecordKind::kOpen);
        connections_.push_back(std::move(connection));
        ++pendingConnects_;
    }
}

void Relay::ConnectPending()
{
    for (const auto& connection : connections_) {
        if (!connection->closed && !connection->toDaemon.has_value()) {
            ConnectPeer(*connection);
        }
    }
}

void Relay::ConnectPeer(Connection& connection)
{
    Fd fd = TryConnect(daemonPath_);
    if (!fd.valid()) {
        if (errno != EAGAIN && errno != EMFILE && errno != ENFILE) {
            PrintError(fmt::format("connection {}: no daemon: {}", connection.number, strerror(errno)));
            Close(connection);
        }
        return;
    }
    --pendingConnects_;
    connection.daemon.fd = std::move(fd);
    connection.daemon.peer = PeerOf(connection.daemon.fd);
    const int worker = connection.worker.fd.get();
    const int daemon = connection.daemon.fd.get();
    connection.toDaemon.emplace(worker, daemon, ReportItems(connection, Direction::kToDaemon));
    connection.toWorker.emplace(daemon, worker, ReportItems(connection, Direction::kToWorker));
    SetInterest(connection.worker);
    SetInterest(connection.daemon);
}

void Relay::Handle(End& end, uint32_t events)
{
    Connection& connection = *end.connection;
    if (connection.closed) {
        return;
    }
    Channel& from = end.isWorker ? *connection.toDaemon : *connection.toWorker;
    Channel& towards = end.isWorker ? *connection.toWorker : *connection.toDaemon;
    const End& other = end.isWorker ? connection.daemon : connection.worker;
    end.hungUp = end.hungUp || (events & (EPOLLHUP | EPOLLERR)) != 0;
    if (!from.IsBlocked() && !from.HasEnded()) {
        from.Pump(end.hungUp);
    }
    if (towards.IsBlocked()) {
        towards.Pump(other.hungUp);
    }
    AfterPump(connection);
}

void Relay::AfterPump(Connection& connection)
{
    struct Route {
        Channel& channel;
        End& source;
        End& destination;
    };
    bool finished = true;
    for (const Route& route : {Route{*connection.toDaemon, connection.worker, connection.daemon},
                               Route{*connection.toWorker, connection.daemon, connection.worker}}) {
        if (!route.channel.IsFinished()) {
            finished = false;
            continue;
        }
        // The source is gone in both directions, so the other direction has no purpose either.
        if (route.source.hungUp && !route.channel.LostDestination()) {
            Close(connection);
            return;
        }
        shutdown(route.destination.fd.get(), SHUT_WR);
    }
    if (finished) {
        Close(connection);
        return;
    }
    SetInterest(connection.worker);
    SetInterest(connection.daemon);
}

void Relay::Close(Connection& connection)
{
    if (connection.toDaemon.has_value()) {
        connection.toDaemon->FinishStream();
        connection.toWorker->FinishStream();
    } else {
        --pendingConnects_;
    }
    connection.closed = true;
    someClosed_ = true;
    connection.worker.fd.Reset();
    connection.daemon.fd.Reset();
    Report(connection, RecordKind::kClose);
}

// epoll reports a peer that hung up for ever, whatever the mask, so it is removed: what it has left in the socket is
// read when the other end has room.
void Relay::SetInterest(End& end)
{
    const Connection& connection = *end.connection;
    const Channel& from = end.isWorker ? *connection.toDaemon : *connection.toWorker;
    const Channel& towards = end.isWorker ? *connection.toWorker : *connection.toDaemon;
    epoll_event event{};
    event.events = (from.HasEnded() || from.IsBlocked() ? 0U : static_cast<uint32_t>(EPOLLIN)) |
                   (towards.IsBlocked() ? static_cast<uint32_t>(EPOLLOUT) : 0U);
    event.data.ptr = &end;
    if (end.hungUp) {
        if (end.registered) {
            epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, end.fd.get(), nullptr);
            end.registered = false;
        }
    } else if (!end.registered || end.interest != event.events) {
        epoll_ctl(epoll_.get(), end.registered ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, end.fd.get(), &event);
        end.registered = true;
        end.interest = event.events;
    }
}

void Relay::Report(const Connection& connection, RecordKind kind)
{
    Record record;
    record.time = std::chrono::system_clock::now();
    record.connection = connection.number;
    record.kind = kind;
    record.peer = connection.worker.peer;
    sink_(std::move(record));
}

FrameStream::Sink Relay::ReportItems(const Connection& connection, Direction direction)
{
    const Peer peer = direction == Direction::kToDaemon ? connection.worker.peer : connection.daemon.peer;
    return [this, number = connection.number, direction, peer](StreamItem&& item) {
        Record record = RecordOf(std::move(item));
        record.connection = number;
        record.direction = direction;
        record.peer = peer;
        sink_(std::move(record));
    };
}

// Without a free descriptor, and when it is shut down, the listener stays readable and Step would spin.
void Relay::PauseAccepting(bool pause)
{
    if (pause == acceptingPaused_) {
        return;
    }
    acceptingPaused_ = pause;
    if (pause) {
        epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, listener_, nullptr);
    } else {
        Watch(listener_, &listener_);
    }
}

}  // namespace tools
