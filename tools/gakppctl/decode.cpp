// gakppctl decode: shows a capture, or bytes given as hexadecimal digits, as the tap would have.

#include <fmt/format.h>

#include <cstdio>
#include <memory>
#include <stdexcept>
#include <utility>

#include "common/capture.h"
#include "record_filter.h"
#include "subcommands.h"

namespace tools {
namespace {

struct Options {
    std::string file = "-";
    RecordStyle style;
    RecordFilter filter;
};

std::string ReadAll(FILE* file)
{
    std::string content;
    char part[4096];
    for (size_t count = 0; (count = fread(part, 1, sizeof(part), file)) > 0;) {
        content.append(part, count);
    }
    return content;
}

// Shows the records that are asked for and remembers whether one of them was malformed.
class Printer {
public:
    explicit Printer(const Options& options) : options_(options) {}

    void Print(const Record& record)
    {
        if (!options_.filter.Accepts(record)) {
            return;
        }
        bool malformed = false;
        tools::Print(Show(record, options_.style, &malformed));
        allWellFormed_ = allWellFormed_ && !malformed;
    }

    bool AllWellFormed() const { return allWellFormed_; }

private:
    const Options& options_;
    bool allWellFormed_ = true;
};

// Whether the capture is complete.
bool ShowCapture(File file, Printer& printer)
{
    CaptureReader reader(std::move(file));
    for (Record record; reader.Next(record);) {
        printer.Print(record);
    }
    if (reader.IsTruncated()) {
        PrintError(kCaptureIsTruncated);
    }
    return !reader.IsTruncated();
}

Bytes ParseHex(const std::string& content)
{
    try {
        return FromHex(content);
    } catch (const std::invalid_argument& error) {
        throw ExitError(kExitFailed, fmt::format("neither a capture nor hexadecimal digits: {}", error.what()));
    }
}

void ShowHex(const std::string& content, Printer& printer)
{
    const Bytes bytes = ParseHex(content);
    if (bytes.empty()) {
        throw ExitError(kExitFailed, "neither a capture nor hexadecimal digits: it is empty");
    }
    FrameStream stream([&printer](StreamItem&& item) {
        Record record = RecordOf(std::move(item));
        record.connection = 1;
        printer.Print(record);
    });
    stream.Feed(bytes.data(), bytes.size());
    stream.Finish();
}

int Run(const Options& options)
{
    File file = OpenInput(options.file);
    Printer printer(options);
    bool complete = true;
    if (IsCapture(file.get())) {
        complete = ShowCapture(std::move(file), printer);
    } else {
        ShowHex(ReadAll(file.get()), printer);
    }
    return complete && printer.AllWellFormed() ? kExitOk : kExitFailed;
}

}  // namespace

Subcommand AddDecode(CLI::App& program)
{
    CLI::App* app = program.add_subcommand("decode", "Show the messages of a capture, or of bytes in hexadecimal");
    auto options = std::make_shared<Options>();
    app->add_option("FILE", options->file, "A capture or hexadecimal digits; - or nothing: standard input");
    app->add_flag("--json", options->style.json, "Print one JSON object per line");
    app->add_flag("--hex", options->style.hex, "Print the bytes as well");
    AddFilterOptions(*app, options->filter);
    AddStandardOptions(*app,
                       "  $ gakppctl decode trace.pcap\n"
                       "  $ gakppctl decode trace.pcap --pid 4711 --message heartbeat\n"
                       "  $ echo '0000000D 09000000 0802 18D09601 28E724' | gakppctl decode",
                       {});
    return {app, [options] {
                options->style.coloured = OutputIsColoured();
                return Run(*options);
            }};
}

}  // namespace tools
