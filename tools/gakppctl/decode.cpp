// gakppctl decode: shows a capture, or bytes given as hexadecimal digits, as the tap would have.

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <sstream>

#include "capture.h"
#include "verbs.h"

namespace tools {
namespace {

struct Options {
    std::string file = "-";
    RecordStyle style;
};

std::string ReadAll(const std::string& file)
{
    if (file == "-") {
        return {std::istreambuf_iterator<char>(std::cin), {}};
    }
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        throw Failure(kExitFailed, fmt::format("{}: {}", file, strerror(errno)));
    }
    return {std::istreambuf_iterator<char>(in), {}};
}

// Shows records and remembers whether one was malformed.
class Shower {
public:
    explicit Shower(const RecordStyle& style) : style_(style) {}

    void operator()(const Record& record)
    {
        bool malformed = false;
        Print(Show(record, style_, &malformed));
        allSound_ = allSound_ && !malformed;
    }

    bool AllSound() const { return allSound_; }

private:
    RecordStyle style_;
    bool allSound_ = true;
};

void ShowCapture(const std::string& content, Shower& show)
{
    std::istringstream in(content);
    CaptureReader reader(in);
    for (Record record; reader.Next(record);) {
        show(record);
    }
}

void ShowHex(const std::string& content, Shower& show)
{
    const Bytes bytes = FromHex(content);
    FrameStream stream([&show](Piece&& piece) {
        Record record = RecordOf(std::move(piece));
        record.connection = 1;
        show(record);
    });
    stream.Pass(bytes.data(), bytes.size());
    stream.End();
}

int Run(const Options& options)
{
    const std::string content = ReadAll(options.file);
    Shower show(options.style);
    if (IsCapture(content)) {
        ShowCapture(content, show);
    } else {
        ShowHex(content, show);
    }
    return show.AllSound() ? kExitOk : kExitFailed;
}

}  // namespace

Verb AddDecode(CLI::App& program)
{
    CLI::App* app = program.add_subcommand("decode", "Show the messages of a capture, or of bytes in hexadecimal");
    auto options = std::make_shared<Options>();
    app->add_option("FILE", options->file, "A capture or hexadecimal digits; - or nothing: standard input");
    app->add_flag("--json", options->style.json, "Print one JSON object per line");
    app->add_flag("--hex", options->style.hex, "Print the bytes as well");
    SetManners(*app,
               "  $ gakppctl decode trace.cap\n"
               "  $ echo '0000000D 09000000 0802 18D09601 28E724' | gakppctl decode");
    return {app, [options] {
                options->style.coloured = OutputIsColoured();
                return Run(*options);
            }};
}

}  // namespace tools
