#include "cli.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gakppc/qel_message.pb.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <csignal>
#include <numeric>
#include <sstream>

#include "deadline.h"
#include "output.h"
#include "standard_fds.h"

namespace tools {
namespace {

constexpr size_t kLongestWord = 80;
constexpr size_t kFarthestGuess = 2;

constexpr char kFailures[] =
    "  1    failed\n"
    "  2    wrong usage\n";
constexpr char kSignals[] =
    "  130  ended by SIGINT\n"
    "  143  ended by SIGTERM\n";

// How many letters have to be inserted, removed or replaced to make one text of the other.
size_t EditDistance(const std::string& from, const std::string& to)
{
    std::vector<size_t> row(to.size() + 1);
    std::iota(row.begin(), row.end(), 0);
    for (size_t i = 1; i <= from.size(); ++i) {
        size_t diagonal = std::exchange(row[0], i);
        for (size_t j = 1; j <= to.size(); ++j) {
            const size_t replaced = diagonal + (from[i - 1] == to[j - 1] ? 0 : 1);
            diagonal = std::exchange(row[j], std::min({replaced, row[j] + 1, row[j - 1] + 1}));
        }
    }
    return row.back();
}

std::string UnknownCommand(const std::vector<std::string>& names, const std::string& word)
{
    const auto nearest = std::min_element(names.begin(), names.end(), [&word](const auto& left, const auto& right) {
        return EditDistance(word, left) < EditDistance(word, right);
    });
    return fmt::format("unknown command {}, {}", word,
                       EditDistance(word, *nearest) <= kFarthestGuess
                           ? fmt::format("did you mean {}?", *nearest)
                           : fmt::format("commands are {}", fmt::join(names, ", ")));
}

void ParseArguments(CLI::App& app, std::vector<std::string> words)
{
    std::vector<std::string> names;
    for (const CLI::App* subcommand : app.get_subcommands([](const CLI::App*) { return true; })) {
        names.push_back(subcommand->get_name());
    }
    if (!names.empty() && !words.empty() && words.front() == "help") {
        words.erase(words.begin());
        words.emplace_back("--help");
    }
    const bool isCommand = words.empty() || words.front().compare(0, 1, "-") == 0 ||
                           std::find(names.begin(), names.end(), words.front()) != names.end();
    if (!names.empty() && !isCommand) {
        throw CLI::ValidationError(UnknownCommand(names, words.front()));
    }
    std::reverse(words.begin(), words.end());  // as CLI11 wants them
    app.parse(std::move(words));
}

// Words that nobody can read are cut.
std::string Shorten(const std::string& text)
{
    std::istringstream words(text);
    std::string result;
    for (std::string word; words >> word;) {
        result += result.empty() ? "" : " ";
        result += word.size() <= kLongestWord
                      ? word
                      : fmt::format("{}... ({} characters)", word.substr(0, kLongestWord / 4), word.size());
    }
    return result;
}

// CLI11's own words, but for "--user: 1 required NAME missing" of an option without its value and a reversed list of
// arguments that it does not know.
std::string TextOf(const CLI::App& app, const CLI::ParseError& error)
{
    if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::ExtrasError)) {
        return fmt::format("unexpected: {}", fmt::join(app.remaining(true), " "));
    }
    std::istringstream words(error.what());
    std::string option, number, required, value, missing;
    words >> option >> number >> required >> value >> missing;
    const bool isValueMissing =
        error.get_name() == "ArgumentMismatch" && required == "required" && missing == "missing";
    return isValueMissing ? fmt::format("{} needs a value {}", option.substr(0, option.find(':')), value)
                          : error.what();
}

// CLI11 has a code of its own for each kind of wrong command line.
int ExitOfParse(const CLI::App& app, const CLI::ParseError& error, bool hasOutput)
{
    if (error.get_exit_code() != 0) {
        const auto parsed = app.get_subcommands();
        const std::string name = app.get_name() + (parsed.empty() ? "" : " " + parsed.front()->get_name());
        PrintError(Shorten(fmt::format("{}; see {} --help", TextOf(app, error), name)));
        return kExitUsage;
    }
    std::ostringstream out;
    app.exit(error, out, out);
    return hasOutput && WriteOut(out.str()) ? kExitOk : kExitFailed;
}

int RunSubcommand(const Subcommand& subcommand, bool hasOutput)
{
    try {
        if (subcommand.needsOutput && !hasOutput) {
            throw ExitError(kExitFailed, "standard output is closed");
        }
        return subcommand.run();
    } catch (const ExitError& error) {
        PrintError(error.what());
        return error.code();
    } catch (const std::exception& error) {
        PrintError(error.what());
        return kExitFailed;
    }
}

// Programs that take these signals for a reason to end in order block them (SignalFd).
void ExitOnSignals()
{
    for (const int number : {SIGINT, SIGTERM}) {
        struct sigaction former {};
        if (sigaction(number, nullptr, &former) == 0 && former.sa_handler != SIG_IGN) {
            signal(number, [](int received) { _exit(kExitSignal + received); });
        }
    }
}

// A list of subcommands shows the first line of what each says of itself.
class FirstLines : public CLI::Formatter {
public:
    std::string make_subcommand(const CLI::App* subcommand) const override
    {
        const std::string text = subcommand->get_description();
        std::ostringstream out;
        CLI::detail::format_help(out, subcommand->get_display_name(true), text.substr(0, text.find('\n')),
                                 get_column_width());
        return out.str();
    }
};

std::string VersionText(const std::string& program)
{
    return fmt::format("{} (libgakppc) {}\nprotobuf {}\nschema {}, message {}", program, GAKPPC_VERSION,
                       google::protobuf::internal::VersionString(GOOGLE_PROTOBUF_VERSION),
                       qel::PPCMessage::descriptor()->file()->name(), qel::PPCMessage::descriptor()->full_name());
}

const char* SuccessText(OnSignal onSignal)
{
    switch (onSignal) {
        case OnSignal::kDone:
            return "  0    success, also when --for, SIGINT, SIGTERM or SIGHUP ends it\n";
        case OnSignal::kDoneIfWatch:
            return "  0    success, also when --for, SIGINT, SIGTERM or SIGHUP ends --watch\n";
        default:
            return "  0    success\n";
    }
}

std::string StatusesText(const std::vector<ExitCode>& others, OnSignal onSignal)
{
    std::string text = SuccessText(onSignal);
    text += kFailures;
    for (const ExitCode status : others) {
        text +=
            fmt::format("  {:<3}  {}\n", static_cast<int>(status), status == kExitNoDaemon ? "no daemon" : "time-out");
    }
    return onSignal == OnSignal::kDone ? text : text + kSignals;
}

}  // namespace

void AddStandardOptions(CLI::App& app, const std::string& examples, const std::vector<ExitCode>& statuses,
                        OnSignal onSignal)
{
    const CLI::App& program = app.get_parent() != nullptr ? *app.get_parent() : app;
    app.formatter(std::make_shared<FirstLines>());
    app.set_version_flag("-V,--version", VersionText(program.get_name()), "Print the versions and exit");
    app.footer("Examples:\n" + examples + "\n\nExit status:\n" + StatusesText(statuses, onSignal));
}

int RunProgram(CLI::App& app, const std::vector<Subcommand>& subcommands, int argc, char** argv)
{
    const bool hasOutput = OpenMissingStandardFds();
    SetProgramName(app.get_name());
    signal(SIGPIPE, SIG_IGN);  // a reader that left shows as a failed write
    ExitOnSignals();
    try {
        ParseArguments(app, {argv + std::min(argc, 1), argv + argc});
    } catch (const CLI::ParseError& error) {
        return ExitOfParse(app, error, hasOutput);
    }
    for (const Subcommand& subcommand : subcommands) {
        if (subcommand.app == &app || subcommand.app->parsed()) {
            return RunSubcommand(subcommand, hasOutput);
        }
    }
    return kExitUsage;
}

CLI::Validator NumberUpTo(double highest)
{
    const auto check = [highest](const std::string& text) {
        double number = -1;
        const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
        const bool isNumber = result.ec == std::errc() && result.ptr == text.data() + text.size();
        return isNumber && number >= 0 && number <= highest
                   ? std::string()
                   : fmt::format("{} is not a number from 0 to {}", text, highest);
    };
    return CLI::Validator(check, "");
}

CLI::Validator NotEmpty()
{
    return CLI::Validator([](const std::string& text) { return text.empty() ? "the value is empty" : ""; }, "");
}

CLI::Option* AddSeconds(CLI::App& app, const std::string& name, double& seconds, const std::string& help)
{
    return app.add_option(name, seconds, help)->check(NumberUpTo(kLongestSeconds))->type_name("SECONDS");
}

}  // namespace tools
