#include "record_output.h"

#include <fmt/format.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <utility>

#include "common/cli.h"

namespace tools {
namespace {

constexpr std::chrono::seconds kPrintTime{5};

std::unique_ptr<CaptureWriter> OpenCapture(const std::string& path)
{
    return path.empty() ? nullptr : std::make_unique<CaptureWriter>(path);
}

bool CountsAsMessage(const Record& record)
{
    return record.kind == RecordKind::kFrame || record.kind == RecordKind::kFragment;
}

}  // namespace

void AddRecordOptions(CLI::App& app, RecordOptions& options)
{
    app.add_flag("--json", options.style.json, "Print one JSON object per line");
    app.add_flag("--hex", options.style.hex, "Print the bytes as well");
    app.add_option("--write", options.capture, "Write what is shown to a pcap file, for decode, replay and Wireshark")
        ->check(NotEmpty())
        ->type_name("FILE");
    AddCount(app, "--count", options.count, "Stop after so many messages have been shown");
    AddSeconds(app, "--for", options.duration, "Stop after this time");
}

RecordOutput::RecordOutput(const RecordOptions& options)
    : options_(options),
      failed_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      printer_(options.style, OpenCapture(options.capture), [this] { eventfd_write(failed_.get(), 1); })
{
}

void RecordOutput::StartTime()
{
    if (options_.duration >= 0) {
        end_.emplace(Seconds(options_.duration));
    }
}

void RecordOutput::Push(Record&& record)
{
    if (IsFull() || !options_.filter.Accepts(record)) {
        return;
    }
    messages_ += CountsAsMessage(record) ? 1 : 0;
    printer_.Push(std::move(record));
}

int RecordOutput::TimeoutMs(int timeoutMs) const
{
    return end_.has_value() ? std::min(timeoutMs, end_->RemainingMs()) : timeoutMs;
}

bool RecordOutput::HasFailed()
{
    eventfd_t failed = 0;
    return eventfd_read(failed_.get(), &failed) == 0;
}

bool RecordOutput::Finish()
{
    const bool shown = printer_.Finish(Deadline(kPrintTime));
    if (printer_.Dropped() > 0) {
        PrintError(
            fmt::format("{} message(s) passed but are not shown: the output is read too slowly", printer_.Dropped()));
    }
    if (!shown) {
        PrintError("the output is not read; the rest is not shown");
        fflush(stderr);
        _exit(kExitFailed);  // the printing thread cannot be joined
    }
    return printer_.Dropped() == 0;
}

}  // namespace tools
