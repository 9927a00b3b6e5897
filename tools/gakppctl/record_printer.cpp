#include "record_printer.h"

#include <chrono>
#include <utility>

#include "common/exit_error.h"

namespace tools {
namespace {

constexpr size_t kMaxQueuedBytes = size_t{64} * 1024 * 1024;
constexpr size_t kWriteAtOnce = size_t{64} * 1024;

}  // namespace

RecordPrinter::RecordPrinter(const RecordStyle& style, std::unique_ptr<CaptureWriter> capture,
                             std::function<void()> failed)
    : style_(style), capture_(std::move(capture)), failed_(std::move(failed)), thread_([this] { Run(); })
{
}

RecordPrinter::~RecordPrinter()
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

void RecordPrinter::Push(Record&& record)
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

bool RecordPrinter::Finish(const Deadline& deadline)
{
    std::unique_lock<std::mutex> lock(mutex_);
    ending_ = true;
    changed_.notify_all();
    return changed_.wait_for(lock, std::chrono::milliseconds(deadline.RemainingMs()), [this] { return ended_; });
}

void RecordPrinter::Run()
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
                Write(records);
            }
        } catch (const ExitError& error) {
            PrintError(error.what());
            writable = false;
            failed_();
        }
        lock.lock();
    }
    ended_ = true;
    changed_.notify_all();
}

void RecordPrinter::Write(const std::vector<Record>& records)
{
    std::string text;
    for (const Record& record : records) {
        if (capture_ != nullptr) {
            capture_->Write(record);
        }
        text += Show(record, style_);
        if (text.size() > kWriteAtOnce) {
            Print(std::exchange(text, {}));
        }
    }
    if (capture_ != nullptr) {
        capture_->Flush();
    }
    Print(text);
}

}  // namespace tools
