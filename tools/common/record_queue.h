#ifndef GAKPPC_RECORD_QUEUE_H
#define GAKPPC_RECORD_QUEUE_H

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "deadline.h"
#include "exit_error.h"
#include "record.h"

namespace tools {

// Writes records on a thread of its own: whoever has them never waits for a slow file or reader. The queue is bounded;
// records above that are counted and dropped.
//
// Locks: mutex_ guards the queue and is never held while something is written.
class RecordQueue {
public:
    // `write` gets the records in order, on the queue's thread. After it has thrown ExitError it is not called again:
    // `failed` is, once, on the same thread, and all further records are discarded.
    RecordQueue(std::function<void(const std::vector<Record>&)> write, std::function<void(const ExitError&)> failed);
    // Ends without writing what is still queued: see Finish.
    ~RecordQueue();
    RecordQueue(const RecordQueue&) = delete;
    RecordQueue& operator=(const RecordQueue&) = delete;

    // Never waits for the writing.
    void Push(Record&& record);

    // Ends after everything has been written. False when that took too long; the thread is then left alone, and the
    // process has to end without the destructors.
    bool Finish(const Deadline& deadline);

    size_t Dropped() const { return dropped_; }

private:
    void Run();

    const std::function<void(const std::vector<Record>&)> write_;
    const std::function<void(const ExitError&)> failed_;
    std::atomic<size_t> dropped_{0};

    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Record> queue_;
    size_t queuedBytes_ = 0;
    bool idle_ = false;  // the thread waits
    bool ending_ = false;
    bool ended_ = false;

    std::thread thread_;
};

}  // namespace tools

#endif
