#ifndef GAKPPC_RECORD_PRINTER_H
#define GAKPPC_RECORD_PRINTER_H

#include <cstddef>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "common/capture.h"
#include "common/deadline.h"
#include "common/record.h"
#include "common/record_queue.h"

namespace tools {

// Prints records and writes them to a capture, on a thread of its own (record_queue.h): forwarding never waits for a
// slow reader of standard output.
class RecordPrinter {
public:
    // `capture` may be null. `failed` is called once, on the printing thread, when nothing can be written any more.
    RecordPrinter(const RecordStyle& style, std::unique_ptr<CaptureWriter> capture, std::function<void()> failed);

    void Push(Record&& record) { queue_.Push(std::move(record)); }
    bool Finish(const Deadline& deadline) { return queue_.Finish(deadline); }
    size_t Dropped() const { return queue_.Dropped(); }

private:
    void Write(const std::vector<Record>& records);

    const RecordStyle style_;
    const std::unique_ptr<CaptureWriter> capture_;
    RecordQueue queue_;  // last: its thread uses what is above
};

}  // namespace tools

#endif
