#include "record_queue.h"

#include <chrono>
#include <utility>

namespace tools {
namespace {

constexpr size_t kMaxQueuedBytes = size_t{64} * 1024 * 1024;

}  // namespace

RecordQueue::RecordQueue(std::function<void(const std::vector<Record>&)> write,
                         std::function<void(const ExitError&)> failed)
    : write_(std::move(write)), failed_(std::move(failed)), thread_([this] { Run(); })
{
}

RecordQueue::~RecordQueue()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ending_ = true;
        queue_.clear();
        changed_.notify_all();
    }
    if (thread_.joinable()) {
        thread_.join();
    }
}

void RecordQueue::Push(Record&& record)
{
    const size_t size = sizeof(Record) + record.bytes.size();
    std::lock_guard<std::mutex> lock(mutex_);
    if (queuedBytes_ + size > kMaxQueuedBytes) {
        ++dropped_;
        return;
    }
    queuedBytes_ += size;
    queue_.push_back(std::move(record));
    if (std::exchange(idle_, false)) {
        changed_.notify_all();
    }
}

bool RecordQueue::Finish(const Deadline& deadline)
{
    std::unique_lock<std::mutex> lock(mutex_);
    ending_ = true;
    changed_.notify_all();
    return changed_.wait_for(lock, std::chrono::milliseconds(deadline.RemainingMs()), [this] { return ended_; });
}

void RecordQueue::Run()
{
    std::unique_lock<std::mutex> lock(mutex_);
    bool writable = true;
    while (!ending_ || !queue_.empty()) {
        if (queue_.empty()) {
            idle_ = true;
            changed_.wait(lock, [this] { return ending_ || !queue_.empty(); });
            continue;
        }
        const std::vector<Record> records = std::exchange(queue_, {});
        queuedBytes_ = 0;
        lock.unlock();
        try {
            if (writable) {
                write_(records);
            }
        } catch (const ExitError& error) {
            writable = false;
            failed_(error);
        }
        lock.lock();
    }
    ended_ = true;
    changed_.notify_all();
}

}  // namespace tools
