#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include "sanitizer_options.h"
#include "tool.h"

namespace gaktest {
namespace {

struct Command {
    const char* program;
    const char* subcommand;
    std::vector<int> statuses;
};

void PrintTo(const Command& command, std::ostream* out)
{
    const std::string program = command.program;
    *out << program.substr(program.rfind('/') + 1) << ' ' << command.subcommand;
}

std::vector<std::string> Arguments(const Command& command, std::vector<std::string> arguments)
{
    if (*command.subcommand != '\0') {
        arguments.insert(arguments.begin(), command.subcommand);
    }
    return arguments;
}

class EveryCommand : public testing::TestWithParam<Command> {};

// The numbers that --help lists at its end.
std::vector<int> StatusesIn(const std::string& help)
{
    const std::string title = "\nExit status:\n";
    const size_t begin = help.find(title);
    if (begin == std::string::npos) {
        return {};
    }
    std::istringstream lines(help.substr(begin + title.size()));
    std::vector<int> statuses;
    for (std::string line; std::getline(lines, line) && !line.empty();) {
        statuses.push_back(std::stoi(line));
    }
    return statuses;
}

TEST_P(EveryCommand, HelpShowsExamplesAndExitStatuses)
{
    const Outcome outcome = RunTool(GetParam().program, Arguments(GetParam(), {"--help"}));
    EXPECT_TRUE(outcome.status.ExitedWith(0)) << outcome.status;
    EXPECT_EQ(outcome.err, "");
    EXPECT_NE(outcome.out.find("Usage: "), std::string::npos) << outcome.out;
    EXPECT_NE(outcome.out.find("\nExamples:\n  $ "), std::string::npos);
    EXPECT_EQ(StatusesIn(outcome.out), GetParam().statuses) << outcome.out;
    const bool runsUntilASignal = GetParam().statuses.back() < 130;
    const std::string ends = ", also when --for, SIGINT, SIGTERM or SIGHUP ends ";
    const std::string success = GetParam().subcommand == std::string("list") ? ends + "--watch"
                                : runsUntilASignal                           ? ends + "it"
                                                                             : "";
    EXPECT_NE(outcome.out.find("\nExit status:\n  0    success" + success + "\n"), std::string::npos);
    for (const std::string line : {"  1    failed", "  2    wrong usage", "  3    no daemon", "  124  time-out",
                                   "  130  ended by SIGINT", "  143  ended by SIGTERM"}) {
        const auto& statuses = GetParam().statuses;
        EXPECT_EQ(CountOf(outcome.out, "\n" + line + "\n"),
                  static_cast<size_t>(std::count(statuses.begin(), statuses.end(), std::stoi(line))))
            << line;
    }
}

// What --help shows behind "$", without what is piped to or from it.
std::vector<std::string> Examples(const std::string& help)
{
    std::vector<std::string> examples;
    const std::string mark = "\n  $ ";
    for (size_t at = help.find(mark); at != std::string::npos; at = help.find(mark, at + 1)) {
        std::string line = help.substr(at + mark.size(), help.find('\n', at + 1) - at - mark.size());
        line = line.substr(line.find("gakppc"));
        examples.push_back(line.substr(0, line.find(" | ")));
    }
    return examples;
}

TEST_P(EveryCommand, ExamplesAreValidUsage)
{
    const std::string programs = std::string(kGakppctl).substr(0, std::string(kGakppctl).rfind('/'));
    const auto examples = Examples(RunTool(GetParam().program, Arguments(GetParam(), {"--help"})).out);
    EXPECT_GE(examples.size(), 2U);
    for (const std::string& example : examples) {
        // Those that would serve or wait are cut.
        Tool tool("timeout", {std::to_string(0.5 * TimeScale()), "sh", "-c", "exec " + example}, Tool::Output::kPipe,
                  {"PATH=" + programs + ":" + getenv("PATH")});
        const ExitStatus status = tool.Finish();
        EXPECT_TRUE(status.ended && status.code != 2 && status.code < 125) << example << ": " << status << tool.err();
    }
}

std::string ContentOf(const std::string& file)
{
    std::ifstream in(file);
    return {std::istreambuf_iterator<char>(in), {}};
}

// The source of the tests of a subcommand, or of gakppcd. Those for a running gakppcd are one file.
std::string TestsOf(const std::string& subcommand)
{
    const auto content = [](const std::string& name) {
        return ContentOf(GAKPPC_TOOL_TEST_DIR "/" + name + "_test.cpp");
    };
    if (subcommand.empty()) {
        return content("gakppcd") + content("wire_capture");
    }
    const std::vector<std::string> orders{"workers", "shutdown", "start-custom", "stop"};
    return content(std::find(orders.begin(), orders.end(), subcommand) != orders.end() ? "control" : subcommand);
}

// --help and --version are this file's.
TEST_P(EveryCommand, EveryOptionIsUsedByATest)
{
    const std::string subcommand = GetParam().subcommand;
    const std::string tests = TestsOf(subcommand);
    std::istringstream help(RunTool(GetParam().program, Arguments(GetParam(), {"--help"})).out);
    size_t found = 0;
    for (std::string words, line; std::getline(help, line);) {
        std::istringstream(line) >> words;
        if (line.rfind("  --", 0) != 0 || words == "--version") {
            continue;
        }
        std::istringstream names(words);
        for (std::string name; std::getline(names, name, ','); ++found) {
            EXPECT_NE(tests.find("\"" + name + "\""), std::string::npos) << name;
        }
    }
    EXPECT_EQ(found == 0, subcommand.empty() && std::string(GetParam().program) == kGakppctl)
        << "gakppctl has subcommands only";
}

TEST_P(EveryCommand, VersionNamesTheProjectProtobufAndTheSchema)
{
    const bool daemon = std::string(GetParam().program) == kGakppcd;
    for (const char* option : {"--version", "-V"}) {
        const Outcome outcome = RunTool(GetParam().program, Arguments(GetParam(), {option}));
        EXPECT_TRUE(outcome.status.ExitedWith(0));
        EXPECT_EQ(outcome.out, (daemon ? "gakppcd" : "gakppctl") +
                                   std::string(" (libgakppc) " GAKPPC_VERSION "\nprotobuf " GAKPPC_PROTOBUF_VERSION
                                               "\nschema qel_message.proto, message qel.PPCMessage\n"));
    }
}

// One line on standard error that can be read.
testing::AssertionResult IsWrongUsage(const Outcome& outcome, const std::string& text)
{
    if (!outcome.status.ExitedWith(2) || !outcome.out.empty() || CountOf(outcome.err, "\n") != 1 ||
        outcome.err.size() > 240 || outcome.err.find(text) == std::string::npos) {
        return testing::AssertionFailure() << outcome.status << "\n" << outcome.out << outcome.err;
    }
    return testing::AssertionSuccess();
}

TEST_P(EveryCommand, UnknownOptionIsWrongUsageInOneLine)
{
    const std::string subcommand = GetParam().subcommand;
    std::vector<std::string> words = Arguments(GetParam(), {"--no-such-option"});
    if (GetParam().program == kGakppctl && subcommand.empty()) {
        words.emplace_back("tap");
    } else if (subcommand == "replay") {
        words.emplace_back("trace.pcap");
    } else if (subcommand == "shutdown") {
        words.emplace_back("all");
    } else if (subcommand == "start-custom") {
        words.insert(words.end(), {"0", "4711"});
    }
    const Outcome outcome = RunTool(GetParam().program, words);
    EXPECT_TRUE(IsWrongUsage(outcome, "--no-such-option"));
    EXPECT_NE(outcome.err.find("; see gakppc"), std::string::npos) << outcome.err;
    EXPECT_NE(outcome.err.find((subcommand.empty() ? "" : subcommand + " ") + "--help\n"), std::string::npos)
        << outcome.err;
}

TEST_P(EveryCommand, ManualPageSaysWhatHelpSays)
{
    const std::string subcommand = GetParam().subcommand;
    const std::string program = std::string(GetParam().program) == kGakppcd ? "gakppcd" : "gakppctl";
    const std::string page = program + (subcommand.empty() ? "" : "-" + subcommand);
    const std::string text = ContentOf(std::string(GAKPPC_MAN_DIR) + "/" + page + ".1");
    EXPECT_NE(text.find(".SH NAME"), std::string::npos) << page;
    EXPECT_NE(text.find("\\-\\-version"), std::string::npos) << text;
    EXPECT_NE(text.find(".SH EXAMPLES\n"), std::string::npos) << text;
    EXPECT_NE(text.find("\n.SS \"Exit status:\"\n"), std::string::npos) << text;
    EXPECT_NE(text.find("\n\\f(CW$ "), std::string::npos) << "the examples are not on lines of their own:\n" << text;
}

INSTANTIATE_TEST_SUITE_P(
    Commands, EveryCommand,
    testing::Values(
        Command{kGakppctl, "", {0, 1, 2, 3, 124, 130, 143}}, Command{kGakppctl, "worker", {0, 1, 2, 3, 124, 130, 143}},
        Command{kGakppctl, "send", {0, 1, 2, 3, 124, 130, 143}}, Command{kGakppctl, "tap", {0, 1, 2, 3}},
        Command{kGakppctl, "watch", {0, 1, 2, 3}}, Command{kGakppctl, "replay", {0, 1, 2, 3, 124, 130, 143}},
        Command{kGakppctl, "decode", {0, 1, 2, 130, 143}}, Command{kGakppctl, "status", {0, 1, 2, 130, 143}},
        Command{kGakppctl, "list", {0, 1, 2, 3, 130, 143}}, Command{kGakppctl, "doctor", {0, 1, 2, 3, 130, 143}},
        Command{kGakppctl, "workers", {0, 1, 2, 3, 124, 130, 143}},
        Command{kGakppctl, "shutdown", {0, 1, 2, 3, 124, 130, 143}},
        Command{kGakppctl, "start-custom", {0, 1, 2, 3, 124, 130, 143}},
        Command{kGakppctl, "stop", {0, 1, 2, 3, 124, 130, 143}}, Command{kGakppcd, "", {0, 1, 2}}));

TEST(GakppctlTest, NeedsASubcommand)
{
    EXPECT_TRUE(IsWrongUsage(Ctl({}), "subcommand is required"));
}

TEST(GakppctlTest, UnknownCommandIsAnsweredWithTheNearestOne)
{
    EXPECT_TRUE(IsWrongUsage(Ctl({"tpa"}), "unknown command tpa, did you mean tap?"));
    EXPECT_TRUE(IsWrongUsage(Ctl({"wroker", "--device", "1"}), "unknown command wroker, did you mean worker?"));
    EXPECT_TRUE(IsWrongUsage(Ctl({"replays"}), "did you mean replay?"));
    EXPECT_TRUE(IsWrongUsage(Ctl({"workr"}), "did you mean worker?"));
    EXPECT_TRUE(IsWrongUsage(Ctl({"dance"}),
                             "unknown command dance, commands are worker, send, tap, watch, replay, decode, "
                             "status, list, doctor, workers, shutdown, start-custom, stop, help"));
    EXPECT_TRUE(IsWrongUsage(Ctl({"doc"}), "unknown command doc, commands are worker, "))
        << "three letters are missing";
    EXPECT_TRUE(IsWrongUsage(Ctl({""}), "unknown command"));
    EXPECT_TRUE(IsWrongUsage(Ctl({std::string(300, 'x')}), "unknown command xxx"));
}

TEST(GakppctlTest, HelpListsEachCommandInOneLine)
{
    const std::string help = Ctl({"--help"}).out;
    const std::string title = "\nSubcommands:\n";
    const size_t begin = help.find(title);
    ASSERT_NE(begin, std::string::npos) << help;
    std::istringstream list(help.substr(begin + title.size()));
    size_t commands = 0;
    for (std::string line; std::getline(list, line) && !line.empty(); ++commands) {
        EXPECT_EQ(line.rfind("  ", 0), 0U) << line;
        EXPECT_NE(line[2], ' ') << line;
        EXPECT_LE(line.size(), 120U) << line;
    }
    EXPECT_EQ(commands, 14U);
    EXPECT_NE(Ctl({"doctor", "--help"}).out.find("repaired\n\nThe connection is closed at once"), std::string::npos);
}

TEST(GakppctlTest, HelpOfACommand)
{
    EXPECT_EQ(Ctl({"help"}).out, Ctl({"--help"}).out);
    for (const char* name : {"worker", "send", "tap", "watch", "replay", "decode", "status", "list", "doctor",
                             "workers", "shutdown", "start-custom", "stop"}) {
        const Outcome outcome = Ctl({"help", name});
        EXPECT_TRUE(outcome.status.ExitedWith(0)) << name;
        EXPECT_EQ(outcome.out, Ctl({name, "--help"}).out);
    }
    EXPECT_TRUE(IsWrongUsage(Ctl({"help", "taps"}), "did you mean tap?"));
}

struct WrongValue {
    const char* subcommand;
    const char* option;
    std::string value;
};
void PrintTo(const WrongValue& wrong, std::ostream* out)
{
    *out << wrong.subcommand << ' ' << wrong.option << ' ' << wrong.value.substr(0, 10);
}
class WrongValueTest : public testing::TestWithParam<WrongValue> {};

TEST_P(WrongValueTest, IsWrongUsageInOneLine)
{
    const WrongValue& wrong = GetParam();
    const bool daemon = *wrong.subcommand == '\0';
    const std::vector<std::string> words{wrong.option, wrong.value};
    const Outcome outcome =
        RunTool(daemon ? kGakppcd : kGakppctl, Arguments({daemon ? kGakppcd : kGakppctl, wrong.subcommand, {}}, words));
    EXPECT_TRUE(IsWrongUsage(outcome, wrong.option));
}

const std::string kLongNumber(300, '9');
INSTANTIATE_TEST_SUITE_P(
    Values, WrongValueTest,
    testing::Values(
        WrongValue{"tap", "--for", "nan"}, WrongValue{"tap", "--for", "inf"}, WrongValue{"tap", "--for", "-1"},
        WrongValue{"tap", "--for", "1s"}, WrongValue{"tap", "--for", kLongNumber}, WrongValue{"tap", "--count", "0"},
        WrongValue{"tap", "--count", kLongNumber}, WrongValue{"tap", "--linger", "nan"},
        WrongValue{"list", "--watch", "0"}, WrongValue{"list", "--watch", "nan"}, WrongValue{"list", "--for", "-1"},
        WrongValue{"tap", "--device", "x"}, WrongValue{"tap", "--device", "-1"},
        WrongValue{"tap", "--device", kLongNumber}, WrongValue{"tap", "--pid", "4711,x"},
        WrongValue{"tap", "--pid", "4711x"}, WrongValue{"tap", "--type", "HEARTBEAT"},
        WrongValue{"watch", "--pid", "0"}, WrongValue{"watch", "--pid", "4711,4712"},
        WrongValue{"watch", "--pid", kLongNumber}, WrongValue{"watch", "--worker", "-4"},
        WrongValue{"tap", "--message", "ZOLT"}, WrongValue{"tap", "--message", "5x"}, WrongValue{"tap", "--type", "1x"},
        WrongValue{"decode", "--device", kLongNumber}, WrongValue{"decode", "--type", ""},
        WrongValue{"decode", "--pid", "-4"}, WrongValue{"worker", "--device", kLongNumber},
        WrongValue{"worker", "--count", "0"}, WrongValue{"worker", "--count", kLongNumber},
        WrongValue{"worker", "--count", "10001"}, WrongValue{"worker", "--host-pid", kLongNumber},
        WrongValue{"worker", "--type", "dance"}, WrongValue{"worker", "--heartbeat", "nan"},
        WrongValue{"send", "--count", "0"}, WrongValue{"send", "--count", kLongNumber},
        WrongValue{"send", "--pid", kLongNumber}, WrongValue{"send", "--interval", "nan"},
        WrongValue{"replay", "--speed", "nan"}, WrongValue{"replay", "--speed", kLongNumber},
        WrongValue{"replay", "--connection", "0"}, WrongValue{"workers", "--timeout", "soon"},
        WrongValue{"stop", "--timeout", "-1"}, WrongValue{"", "--control", ""}, WrongValue{"", "--for", "nan"},
        WrongValue{"", "--grace", kLongNumber}, WrongValue{"", "--spawn", "0:ZOLT:" + kLongNumber},
        WrongValue{"", "--spawn", kLongNumber}, WrongValue{"", "--spawn", "0:ZOLT:10001"},
        WrongValue{"", "--spawn", "0:ZOLT:0"}, WrongValue{"", "--spawn", kLongNumber + ":ZOLT"}));

INSTANTIATE_TEST_SUITE_P(EmptyValues, WrongValueTest,
                         testing::Values(WrongValue{"doctor", "--user", ""}, WrongValue{"tap", "--write", ""},
                                         WrongValue{"", "--log", ""}, WrongValue{"", "--write", ""},
                                         WrongValue{"", "--worker-program", ""}, WrongValue{"list", "--control", ""},
                                         WrongValue{"workers", "--control", ""}));

TEST(GakppctlTest, LongStatusQueryIsAnsweredInOneLine)
{
    const Outcome outcome = Ctl({"status", kLongNumber});
    EXPECT_TRUE(outcome.status.ExitedWith(1));
    EXPECT_LT(outcome.err.size(), 200U) << outcome.err;
}

// Each has a task that it has not finished when the signal comes.
TEST(ExitStatusTest, InterruptedProgramsReportTheSignal)
{
    for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
             {"worker"}, {"worker", "--count", "2"}, {"send", "HEARTBEAT", "--wait", "60"}}) {
        for (const int number : {SIGINT, SIGTERM}) {
            const Fd listener = RawListen(kServer);
            Tool tool(kGakppctl, arguments);
            const Fd worker = RawAccept(listener, kLimit);
            ASSERT_TRUE(ReadPpcFrame(worker, kLimit).has_value());
            tool.Kill(number);
            const ExitStatus status = tool.Finish();
            EXPECT_TRUE(status.ExitedWith(128 + number)) << arguments.front() << ": " << status << tool.err();
            while (ReadPpcFrame(worker, kLimit).has_value()) {  // it may have sent more before the signal came
            }
            EXPECT_TRUE(ExpectEof(worker, kLimit));
        }
    }
}

TEST(ExitStatusTest, ReaderOfStandardInputReportsTheSignal)
{
    if (kUnderEmulator) {
        GTEST_SKIP() << "the executable is the emulator";
    }
    Tool tool("sh", {"-c", "echo $$; exec \"$0\" decode", kGakppctl});
    ASSERT_TRUE(tool.WaitForOut("\n"));
    const std::string executable = "/proc/" + std::to_string(tool.pid()) + "/exe";
    ASSERT_TRUE(WaitUntil(
        [&executable] { return std::filesystem::read_symlink(executable) == std::filesystem::path(kGakppctl); },
        kLimit));
    ASSERT_TRUE(WaitUntil([&tool] { return IsAsleep(tool.pid()); }, kLimit));
    tool.Kill(SIGTERM);
    EXPECT_TRUE(tool.Finish().ExitedWith(143));
}

TEST(ExitStatusTest, IgnoredSignalStaysIgnored)
{
    const Fd listener = RawListen(kServer);
    Tool tool("sh", {"-c", "trap '' INT; exec \"$0\" worker --for 1", kGakppctl});
    const Fd worker = RawAccept(listener, kLimit);
    ASSERT_TRUE(ReadPpcFrame(worker, kLimit).has_value());
    tool.Kill(SIGINT);
    EXPECT_TRUE(tool.Finish().ExitedWith(0));
}

TEST(GakppctlTest, ClosedOutputIsAFailure)
{
    Tool tool("sh", {"-c", "exec \"$0\" status --list >&-", kGakppctl});
    EXPECT_TRUE(tool.Finish().ExitedWith(1)) << tool.err();
}

TEST(GakppctlTest, ReaderThatLeavesIsNotTold)
{
    // The reader alone holds the fifo open to write, so the tool starts when the reader has ended.
    Tool tool("sh", {"-c",
                     "mkfifo /home/left; exec 3>&1; { read end </home/left; \"$0\" status --list; echo $? >&3; } | "
                     "exec 9>/home/left",
                     kGakppctl});
    EXPECT_TRUE(tool.WaitForOut("1\n"));
    EXPECT_TRUE(tool.Finish().ExitedWith(0));
    EXPECT_EQ(tool.err(), "");
}

TEST(GakppctlTest, OptionWithoutItsValueIsTold)
{
    EXPECT_TRUE(IsWrongUsage(Ctl({"worker", "--device"}), "gakppctl: --device needs a value N; see "));
    EXPECT_TRUE(IsWrongUsage(Ctl({"doctor", "--user"}), "gakppctl: --user needs a value NAME; see "));
    EXPECT_TRUE(IsWrongUsage(Ctl({"tap", "--pid"}), "gakppctl: --pid needs a value PID; see "));
}

TEST(GakppctlTest, UnexpectedWordsAreNamedInTheirOrder)
{
    EXPECT_TRUE(IsWrongUsage(Ctl({"worker", "--heartbeats", "3"}),
                             "gakppctl: unexpected: --heartbeats 3; see gakppctl worker --help\n"));
    EXPECT_TRUE(IsWrongUsage(RunTool(kGakppcd, {"one", "two"}), "gakppcd: unexpected: one two; see gakppcd --help\n"));
}

TEST(GakppctlTest, ColoursOnlyOnATerminalThatWantsThem)
{
    const std::vector<std::string> arguments{"decode", "/home/frame.hex"};
    std::ofstream("/home/frame.hex") << "00000004 00000000";
    const auto output = [&arguments](Tool::Output kind, const std::vector<std::string>& environment) {
        Tool tool(kGakppctl, arguments, kind, environment);
        tool.Finish();
        return tool.out();
    };
    const std::string escape = "\033";
    EXPECT_NE(output(Tool::Output::kTerminal, {"TERM=xterm", "NO_COLOR="}).find(escape), std::string::npos);
    EXPECT_EQ(output(Tool::Output::kTerminal, {"TERM=xterm", "NO_COLOR=1"}).find(escape), std::string::npos);
    EXPECT_EQ(output(Tool::Output::kTerminal, {"TERM=dumb", "NO_COLOR="}).find(escape), std::string::npos);
    EXPECT_EQ(output(Tool::Output::kPipe, {"TERM=xterm", "NO_COLOR="}).find(escape), std::string::npos);
}

// What bash offers behind these words, of which the last is unfinished.
std::string Completions(const std::string& program, const std::string& words)
{
    const std::string script = ". " GAKPPC_COMPLETION_DIR "/" + program + "; COMP_WORDS=(" + words +
                               "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _" + program +
                               " \"${COMP_WORDS[0]}\"; echo \" ${COMPREPLY[*]} \"";
    return RunTool("bash", {"-c", script}).out;
}

TEST(Completion, OffersSubcommands)
{
    EXPECT_EQ(Completions("gakppctl", std::string(kGakppctl) + " s"), " send status shutdown start-custom stop \n");
    EXPECT_NE(Completions("gakppctl", std::string(kGakppctl) + " ''").find(" doctor "), std::string::npos);
    EXPECT_EQ(Completions("gakppctl", std::string(kGakppctl) + " help re"), " replay \n");
}

TEST(Completion, OffersOptionsOfTheSubcommand)
{
    EXPECT_EQ(Completions("gakppctl", std::string(kGakppctl) + " tap --li"), " --linger \n");
    EXPECT_EQ(Completions("gakppctl", std::string(kGakppctl) + " watch --pi"), " --pid \n");
    EXPECT_EQ(Completions("gakppctl", std::string(kGakppctl) + " worker --cr"), " --crash-after \n");
    EXPECT_EQ(Completions("gakppctl", std::string(kGakppctl) + " list --w"), " --watch \n");
    EXPECT_EQ(Completions("gakppctl", std::string(kGakppctl) + " list --c"), " --control \n");
}

TEST(Completion, OffersValues)
{
    EXPECT_EQ(Completions("gakppctl", std::string(kGakppctl) + " worker --type C"), " COMPUTE CUSTOM_COMPUTE \n");
    EXPECT_EQ(Completions("gakppctl", std::string(kGakppctl) + " send H"), " HEARTBEAT \n");
    EXPECT_EQ(Completions("gakppctl", std::string(kGakppctl) + " send --expect A"), " ABNORMAL \n");
    EXPECT_EQ(Completions("gakppctl", std::string(kGakppctl) + " tap --message H"), " HEARTBEAT \n");
    EXPECT_EQ(Completions("gakppctl", std::string(kGakppctl) + " send --message H"), "  \n") << "JSON";
    EXPECT_EQ(Completions("gakppctl", std::string(kGakppctl) + " shutdown a"), " all \n");
    EXPECT_EQ(Completions("gakppctl", std::string(kGakppctl) + " start-custom 3"), " 3 \n");
    for (const std::string verb : {"stop", "list"}) {
        EXPECT_NE(Completions("gakppctl", kGakppctl + (" " + verb) + " --control /et").find(" /etc "),
                  std::string::npos);
    }
    EXPECT_NE(Completions("gakppctl", std::string(kGakppctl) + " doctor --user roo").find(" root "), std::string::npos);
}

TEST(Completion, OffersOptionsOfTheDaemon)
{
    EXPECT_EQ(Completions("gakppcd", std::string(kGakppcd) + " --auto"), " --auto-custom \n");
}

// The check itself must be able to fail.
TEST(SchemaCheck, RefusesWhatDoesNotFit)
{
    EXPECT_FALSE(FitsSchema("", "status"));
    EXPECT_FALSE(FitsSchema("{}\n", "status"));
    EXPECT_FALSE(FitsSchema("no json\n", "status"));
}

}  // namespace
}  // namespace gaktest
