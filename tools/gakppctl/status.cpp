// gakppctl status: a status number's fields and text, and the numbers of a text.

#include <fmt/format.h>
#include <gakppc/status_table.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "common/message.h"
#include "subcommands.h"

namespace tools {
namespace {

struct Options {
    std::string query;
    bool list = false;
    bool json = false;
};

struct Status {
    uint32_t number;
    const char* text;  // null for one that is not in the table
};

#define GAKPPC_TOOLS_ROW(number, text) {number, text},
constexpr Status kTable[] = {GAKPPC_STATUS_TABLE(GAKPPC_TOOLS_ROW)};
#undef GAKPPC_TOOLS_ROW

constexpr const char* kLevels[] = {"DEBUG", "INFO", "WARN", "ERROR", "FATAL"};

std::optional<uint32_t> ParseNumber(const std::string& text, int base)
{
    uint32_t number = 0;
    const char* end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, number, base);
    return result.ec == std::errc() && result.ptr == end ? std::optional<uint32_t>(number) : std::nullopt;
}

const Status* Find(uint32_t number)
{
    const auto found = std::find_if(std::begin(kTable), std::end(kTable),
                                    [number](const Status& status) { return status.number == number; });
    return found == std::end(kTable) ? nullptr : found;
}

// Logs print status numbers in decimal, people write them with 0x or without.
std::optional<Status> StatusOfNumber(const std::string& text)
{
    const bool prefixed = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    const auto hexadecimal = ParseNumber(prefixed ? text.substr(2) : text, 16);
    const auto decimal = prefixed ? hexadecimal : ParseNumber(text, 10);
    for (const auto& number : {decimal, hexadecimal}) {
        if (const Status* status = number ? Find(*number) : nullptr) {
            return *status;
        }
    }
    return decimal ? std::optional<Status>({*decimal, nullptr}) : std::nullopt;
}

std::string Lower(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

// Those with exactly this text, otherwise those that contain it. Upper and lower case are the same.
std::vector<Status> StatusesOfText(const std::string& text)
{
    const std::string wanted = Lower(text);
    std::vector<Status> equal;
    std::vector<Status> containing;
    for (const Status& status : kTable) {
        const std::string candidate = Lower(status.text);
        if (candidate == wanted) {
            equal.push_back(status);
        } else if (candidate.find(wanted) != std::string::npos) {
            containing.push_back(status);
        }
    }
    return equal.empty() ? containing : equal;
}

std::string LevelName(uint32_t number)
{
    const uint32_t level = qel::StatusLevel(number);
    return level < std::size(kLevels) ? kLevels[level] : std::to_string(level);
}

std::string Show(const Status& status, bool json)
{
    const uint32_t module = (status.number >> 16) & 0xFF;
    if (!json) {
        return fmt::format("{:#x} ({}) system {:#04x} module {:#04x} level {} number {:#05x} {}\n", status.number,
                           status.number, status.number >> 24, module, LevelName(status.number), status.number & 0xFFF,
                           status.text != nullptr ? fmt::format("\"{}\"", status.text) : "not in the table");
    }
    Json line;
    line["status"] = fmt::format("{:#x}", status.number);
    line["decimal"] = status.number;
    line["system"] = status.number >> 24;
    line["module"] = fmt::format("{:#04x}", module);
    line["level"] = LevelName(status.number);
    line["number"] = status.number & 0xFFF;
    line["text"] = status.text != nullptr ? Json(status.text) : Json();
    return JsonLine(line);
}

std::vector<Status> Select(const Options& options)
{
    if (options.list) {
        return {std::begin(kTable), std::end(kTable)};
    }
    if (const auto status = StatusOfNumber(options.query)) {
        return {*status};
    }
    return StatusesOfText(options.query);
}

int Run(const Options& options)
{
    const std::vector<Status> found = Select(options);
    if (found.empty()) {
        throw ExitError(kExitFailed, fmt::format("no status has a text with \"{:.100}\"", options.query));
    }
    std::string text;
    for (const Status& status : found) {
        text += Show(status, options.json);
    }
    Print(text);
    return found.front().text != nullptr ? kExitOk : kExitFailed;
}

}  // namespace

Subcommand AddStatus(CLI::App& program)
{
    CLI::App* app = program.add_subcommand("status", "Explain a status number, or find the numbers of a text");
    auto options = std::make_shared<Options>();
    auto* query = app->add_option("QUERY", options->query, "A number (0x1093036, 17379382) or a text, or part of one");
    auto* list = app->add_flag("--list", options->list, "Print the whole table");
    query->excludes(list);
    app->add_flag("--json", options->json, "Print one JSON object per line");
    app->callback([options] {
        if (options->query.empty() && !options->list) {
            throw CLI::RequiredError("QUERY or --list");
        }
    });
    AddStandardOptions(*app,
                       "  $ gakppctl status 0x1093036\n"
                       "  $ gakppctl status 17379382\n"
                       "  $ gakppctl status 'session is not existed'\n"
                       "  $ gakppctl status --list --json");
    return {app, [options] { return Run(*options); }};
}

}  // namespace tools
