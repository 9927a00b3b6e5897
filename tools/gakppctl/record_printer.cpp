#include "record_printer.h"

#include <utility>

namespace tools {
namespace {

constexpr size_t kWriteAtOnce = size_t{64} * 1024;

}  // namespace

RecordPrinter::RecordPrinter(const RecordStyle& style, std::unique_ptr<CaptureWriter> capture,
                             std::function<void()> failed)
    : style_(style),
      capture_(std::move(capture)),
      queue_([this](const std::vector<Record>& records) { Write(records); },
             [failed = std::move(failed)](const ExitError& error) {
                 PrintError(error.what());
                 failed();
             })
{
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
