#include "trace_recorder.h"

#include <fmt/format.h>
#include <gakppc/status_table.h>
#include <sys/stat.h>

#include <algorithm>
#include <ctime>
#include <utility>

namespace tools {
namespace {

constexpr std::chrono::milliseconds kReorderTime{100};

std::chrono::nanoseconds NowOf(clockid_t clock)
{
    timespec now{};
    clock_gettime(clock, &now);
    return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

// The tracer's clock counts from the start of the machine.
SystemTime TimeOf(const TraceEvent& event)
{
    const auto age = NowOf(CLOCK_BOOTTIME) - std::chrono::nanoseconds(event.time);
    return std::chrono::system_clock::now() - std::chrono::duration_cast<SystemTime::duration>(age);
}

// The user of a process, while there is one.
Peer PeerWithPid(pid_t pid)
{
    struct stat folder {};
    return stat(fmt::format("/proc/{}", pid).c_str(), &folder) == 0 ? Peer{pid, folder.st_uid} : Peer{pid, 0};
}

bool IsMessage(const TraceEvent& event)
{
    return event.kind == TraceEvent::Kind::kSent || event.kind == TraceEvent::Kind::kReceived;
}

// Of the event's session: what is known of it, otherwise what `look` finds.
WatchedEnd EndOf(const TraceEvent& event, std::map<int, WatchedEnd>& sessions, const std::function<WatchedEnd()>& look)
{
    const auto known = sessions.find(event.fd);
    const bool isKnown = event.kind != TraceEvent::Kind::kOpened && known != sessions.end();
    const WatchedEnd end = isKnown ? known->second : look();
    sessions[event.fd] = end;
    if (event.kind == TraceEvent::Kind::kEnded) {
        sessions.erase(event.fd);
    }
    return end;
}

}  // namespace

void TraceRecorder::Push(TraceEvent&& event)
{
    const uint64_t time = event.time;
    const WatchedEnd end = LookAt(event);
    waiting_.emplace(time, Waiting{Deadline(kReorderTime), std::move(event), end});
}

// At once, because the connection may soon be gone.
WatchedEnd TraceRecorder::LookAt(const TraceEvent& event)
{
    return EndOf(event, seen_, [&] { return LookAgain(event); });
}

// The descriptor may be gone, or be another connection's by now.
WatchedEnd TraceRecorder::LookAgain(const TraceEvent& event) const
{
    const auto found = watched_.endOf(event.fd);
    const bool isReplaced =
        found.has_value() && watched_.sharesPids && event.peer != 0 && found->peer.pid != event.peer;
    return found.has_value() && !isReplaced ? *found : WatchedEnd{watched_.isDaemon, PeerWithPid(event.peer)};
}

void TraceRecorder::PassOn()
{
    while (!waiting_.empty() && waiting_.begin()->second.deadline.Passed()) {
        PassOnFirst();
    }
}

void TraceRecorder::PassOnAll()
{
    while (!waiting_.empty()) {
        PassOnFirst();
    }
}

int TraceRecorder::TimeoutMs(int timeoutMs) const
{
    return waiting_.empty() ? timeoutMs : std::min(timeoutMs, waiting_.begin()->second.deadline.RemainingMs());
}

// The processors' reports do not come in the order of their times: in that order a session begins and ends.
void TraceRecorder::PassOnFirst()
{
    Waiting first = std::move(waiting_.extract(waiting_.begin()).mapped());
    const WatchedEnd end = EndOf(first.event, passedOn_, [&] { return first.end; });
    sink_(RecordOf(std::move(first.event), end));
}

// A session that has ended keeps its number, for a thread that was still about to report a message of it.
uint32_t TraceRecorder::NumberOf(const TraceEvent& event)
{
    uint32_t& number = connections_[event.fd];
    if (number == 0 || event.kind == TraceEvent::Kind::kOpened) {
        number = ++lastNumber_;
    }
    return number;
}

Record TraceRecorder::RecordOf(TraceEvent&& event, const WatchedEnd& end)
{
    Record record;
    record.time = TimeOf(event);
    record.connection = NumberOf(event);
    if (!IsMessage(event)) {
        record.kind = event.kind == TraceEvent::Kind::kOpened ? RecordKind::kOpen : RecordKind::kClose;
        record.peer = end.isDaemon ? end.peer : watched_.self;
        return record;
    }
    const bool isReceived = event.kind == TraceEvent::Kind::kReceived;
    record.kind = RecordKind::kFrame;
    record.direction = isReceived == end.isDaemon ? Direction::kToDaemon : Direction::kToWorker;
    record.peer = isReceived ? end.peer : watched_.self;
    record.wireLength = kFrameHeaderSize + event.length;
    record.bytes = FrameBeginning(static_cast<uint32_t>(event.length), event.payload);
    record.known = std::move(event.message);
    if (!isReceived && event.status != qel::kStatusOk) {
        record.sendStatus = event.status;
    }
    return record;
}

}  // namespace tools
