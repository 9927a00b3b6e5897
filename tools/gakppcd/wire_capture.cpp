#include "wire_capture.h"

#include <fmt/format.h>
#include <unistd.h>

#include <chrono>
#include <utility>

namespace tools {
namespace {

constexpr std::chrono::seconds kWriteTime{5};

std::mutex currentMutex;
WireCapture* current = nullptr;

}  // namespace

WireCapture::WireCapture(const std::string& path)
    : writer_(path),
      queue_(
          [this](const std::vector<Record>& records) {
              for (const Record& record : records) {
                  writer_.Write(record);
              }
              writer_.Flush();
          },
          [this](const ExitError& error) { OnFailure(error); })
{
    std::lock_guard<std::mutex> lock(currentMutex);
    current = this;
}

WireCapture::~WireCapture()
{
    std::lock_guard<std::mutex> lock(currentMutex);
    current = nullptr;
}

void WireCapture::WithCurrent(const std::function<void(WireCapture&)>& action)
{
    std::lock_guard<std::mutex> lock(currentMutex);
    if (current != nullptr) {
        action(*current);
    }
}

void WireCapture::OnFailure(const ExitError& error)
{
    std::lock_guard<std::mutex> lock(problemMutex_);
    complete_ = false;
    problem_ = fmt::format("{}; nothing more is written to this capture", error.what());
}

std::string WireCapture::TakeProblem()
{
    std::lock_guard<std::mutex> lock(problemMutex_);
    return std::exchange(problem_, {});
}

bool WireCapture::Finish()
{
    if (!queue_.Finish(Deadline(kWriteTime))) {
        PrintError("the capture is not read; the rest of it is not written");
        _exit(kExitFailed);  // the writing thread cannot be joined
    }
    std::lock_guard<std::mutex> lock(problemMutex_);
    if (queue_.Dropped() > 0) {
        complete_ = false;
        problem_ = fmt::format("{} message(s) are missing in the capture: it is written too slowly", queue_.Dropped());
    }
    return complete_;
}

WireCapture::Connection WireCapture::Use(const PpcSession* session, int fd)
{
    const auto found = sessions_.find(session);
    if (found == sessions_.end()) {
        return {};
    }
    if (found->second.number == 0) {
        found->second = {++lastNumber_, PeerOf(fd)};
        Push(RecordKind::kOpen, found->second, {});
    }
    return found->second;
}

void WireCapture::OnBytes(const Connection& connection, Direction direction, StreamItemKind kind, Bytes&& bytes)
{
    Record record;
    record.direction = direction;
    record.wireLength = bytes.size();
    record.bytes = std::move(bytes);
    Push(static_cast<RecordKind>(kind), connection, std::move(record));
}

void WireCapture::OnClosed(const PpcSession* session)
{
    const auto found = sessions_.find(session);
    if (found == sessions_.end()) {
        return;
    }
    const Connection connection = found->second;
    sessions_.erase(found);
    if (connection.number > 0) {
        Push(RecordKind::kClose, connection, {});
    }
}

void WireCapture::Push(RecordKind kind, const Connection& connection, Record&& record)
{
    record.time = std::chrono::system_clock::now();
    record.kind = kind;
    record.connection = connection.number;
    record.peer = record.direction == Direction::kToDaemon ? connection.worker : Peer{getpid(), geteuid()};
    queue_.Push(std::move(record));
}

}  // namespace tools
