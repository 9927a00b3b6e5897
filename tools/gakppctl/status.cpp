// gakppctl status: a status number's constant, fields and text, and the numbers of a text.

#include <fmt/format.h>
#include <gakppc/status_table.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "common/message.h"
#include "common/statuses.h"
#include "subcommands.h"

namespace tools {
namespace {

struct Options {
    std::string query;
    bool list = false;
    bool json = false;
};

constexpr const char* kLevels[] = {"DEBUG", "INFO", "WARN", "ERROR", "FATAL"};

std::optional<uint32_t> ParseNumber(const std::string& text, int base)
{
    uint32_t number = 0;
    const char* end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, number, base);
    return result.ec == std::errc() && result.ptr == end ? std::optional<uint32_t>(number) : std::nullopt;
}

// Logs print status numbers in decimal, people write them with 0x or without.
std::optional<Status> StatusOfNumber(const std::string& text)
{
    const bool prefixed = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    const auto hexadecimal = ParseNumber(prefixed ? text.substr(2) : text, 16);
    const auto decimal = prefixed ? hexadecimal : ParseNumber(text, 10);
    for (const auto& number : {decimal, hexadecimal}) {
        if (const Status* status = number ? FindStatus(*number) : nullptr) {
            return *status;
        }
    }
    if (!decimal) {
        return std::nullopt;
    }
    Status unknown;
    unknown.number = *decimal;
    return unknown;
}

std::string Lower(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

// Those with exactly this constant or text, otherwise those that contain it. Upper and lower case are the same.
std::vector<Status> StatusesOfText(const std::string& text)
{
    const std::string wanted = Lower(text);
    std::vector<Status> equal;
    std::vector<Status> containing;
    for (const Status& status : AllStatuses()) {
        for (const char* candidate : {status.text, status.constant}) {
            const std::string lower = Lower(candidate == nullptr ? "" : candidate);
            if (lower == wanted) {
                equal.push_back(status);
                break;
            }
            if (lower.find(wanted) != std::string::npos) {
                containing.push_back(status);
                break;
            }
        }
    }
    return equal.empty() ? containing : equal;
}

std::string LevelName(uint32_t number)
{
    const uint32_t level = qel::StatusLevel(number);
    return level < std::size(kLevels) ? kLevels[level] : std::to_string(level);
}

std::string ShowText(const Status& status)
{
    const std::string text = status.text != nullptr ? fmt::format("\"{}\"", status.text) : "not in the table";
    if (status.isDriverCode) {
        return fmt::format("{} code of the driver {}\n", StatusLabel(status.number), text);
    }
    return fmt::format("{} decimal {} system {:#04x} module {:#04x} level {} number {:#05x} {}\n",
                       StatusLabel(status.number), status.number, status.number >> 24, (status.number >> 16) & 0xFF,
                       LevelName(status.number), status.number & 0xFFF, text);
}

std::string Show(const Status& status, bool json)
{
    if (!json) {
        return ShowText(status);
    }
    const uint32_t module = (status.number >> 16) & 0xFF;
    Json line;
    line["status"] = fmt::format("{:#x}", status.number);
    line["constant"] = status.constant != nullptr ? Json(status.constant) : Json();
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
        return AllStatuses();
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
        throw ExitError(kExitFailed, fmt::format("no status has a constant or text with \"{:.100}\"", options.query));
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
    CLI::App* app = program.add_subcommand(
        "status", "Explain a status number or a code of the driver, or find those of a constant or text");
    auto options = std::make_shared<Options>();
    auto* query = app->add_option("QUERY", options->query,
                                  "A number (0x1093036, 17379382, 25), or a constant or text, or part of one");
    auto* list = app->add_flag("--list", options->list, "Print all of them");
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
                       "  $ gakppctl status PPC_ERR_RECV\n"
                       "  $ gakppctl status 'session is not existed'\n"
                       "  $ gakppctl status --list --json",
                       {});
    return {app, [options] { return Run(*options); }};
}

}  // namespace tools
