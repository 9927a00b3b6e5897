#ifndef GAKPPC_RECORD_PRINTER_H
#define GAKPPC_RECORD_PRINTER_H

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "common/capture.h"
#include "common/deadline.h"
#include "common/record.h"

namespace tools {

// Prints records and writes them to a capture, on a thread of its own: forwarding never waits for a slow reader of
// standard output. The queue is bounded; records above that are counted and dropped.
//
// Locks: mutex_ guards the queue and is never held while something is written.
class RecordPrinter {
public:
    // `capture` may be null. `failed` is called once, on the printing thread, when nothing can be written any more.
    RecordPrinter(const RecordStyle& style, std::unique_ptr<CaptureWriter> capture, std::function<void()> failed);
    // Ends without waiting for a reader: see Finish.
    ~RecordPrinter();
    RecordPrinter(const RecordPrinter&) = delete;
    RecordPrinter& operator=(const RecordPrinter&) = delete;

    void Push(Record&& record);

    // Ends after everything has been written. False when the reader of standard output took too long; the thread is
    // then left alone, and the process has to end without the destructors.
    bool Finish(const Deadline& deadline);

    size_t Dropped() const { return dropped_; }

private:
    void Run();
    void Write(const std::vector<Record>& records);

    const RecordStyle style_;
    const std::unique_ptr<CaptureWriter> capture_;
    const std::function<void()> failed_;
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
