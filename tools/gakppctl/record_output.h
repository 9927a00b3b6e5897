#ifndef GAKPPC_RECORD_OUTPUT_H
#define GAKPPC_RECORD_OUTPUT_H

#include <CLI/CLI.hpp>
#include <cstdint>
#include <optional>
#include <string>

#include "common/deadline.h"
#include "common/fd.h"
#include "common/record.h"
#include "record_filter.h"
#include "record_printer.h"

namespace tools {

// What is shown of the messages that pass, how, and when that was enough.
struct RecordOptions {
    RecordStyle style;
    RecordFilter filter;
    std::string capture;
    double duration = -1;
    uint64_t count = 0;
};

// Adds --json, --hex, --write, --count and --for.
void AddRecordOptions(CLI::App& app, RecordOptions& options);

// Shows, counts and writes the records that the filter accepts, up to the limits that were asked for. What prints never
// holds up its owner.
class RecordOutput {
public:
    // `options` must outlive it.
    explicit RecordOutput(const RecordOptions& options);

    void Push(Record&& record);

    // From now on the time of --for runs.
    void StartTime();

    // --count records have been taken; the time of --for has passed.
    bool IsFull() const { return options_.count > 0 && messages_ >= options_.count; }
    bool IsTimeOver() const { return HasPassed(end_); }
    // `timeoutMs`, or what is left of the time of --for where that is less.
    int TimeoutMs(int timeoutMs) const;

    // Nothing can be written any more. The descriptor is readable from then on, until HasFailed has been asked.
    int FailedFd() const { return failed_.get(); }
    bool HasFailed();

    // Writes the rest. False, after a line about it, when not everything has been shown. Ends the process when the
    // reader of standard output takes too long.
    bool Finish();

private:
    const RecordOptions& options_;
    Fd failed_;
    RecordPrinter printer_;
    std::optional<Deadline> end_;
    uint64_t messages_ = 0;
};

}  // namespace tools

#endif
