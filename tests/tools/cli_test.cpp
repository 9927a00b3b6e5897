#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>

#include "tool.h"

namespace gaktest {
namespace {

struct Command {
    const char* program;
    const char* subcommand;
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

TEST_P(EveryCommand, HelpShowsExamplesAndExitStatuses)
{
    const Outcome outcome = RunTool(GetParam().program, Arguments(GetParam(), {"--help"}));
    EXPECT_TRUE(outcome.status.ExitedWith(0)) << outcome.status;
    EXPECT_EQ(outcome.err, "");
    EXPECT_NE(outcome.out.find("Usage: "), std::string::npos) << outcome.out;
    EXPECT_NE(outcome.out.find("\nExamples:\n  $ "), std::string::npos);
    EXPECT_NE(outcome.out.find("Exit status: 0 success, 1 failed, 2 wrong usage, 3 no daemon, 124 time limit."),
              std::string::npos);
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
        Tool tool("timeout", {"0.5", "sh", "-c", "exec " + example}, Tool::Output::kPipe,
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

// --help and --version are this file's.
TEST_P(EveryCommand, EveryOptionIsUsedByATest)
{
    const std::string subcommand = GetParam().subcommand;
    const std::string tests =
        ContentOf(GAKPPC_TOOL_TEST_DIR "/" + (subcommand.empty() ? "gakppcd" : subcommand) + "_test.cpp");
    std::istringstream help(RunTool(GetParam().program, Arguments(GetParam(), {"--help"})).out);
    size_t found = 0;
    for (std::string word, line; std::getline(help, line);) {
        std::istringstream(line) >> word;
        if (line.rfind("  --", 0) == 0 && word != "--version") {
            ++found;
            EXPECT_NE(tests.find("\"" + word + "\""), std::string::npos) << word;
        }
    }
    EXPECT_EQ(found == 0, subcommand.empty() && std::string(GetParam().program) == kGakppctl)
        << "gakppctl has subcommands only";
}

TEST_P(EveryCommand, VersionIsTheProjects)
{
    const Outcome outcome = RunTool(GetParam().program, Arguments(GetParam(), {"--version"}));
    EXPECT_TRUE(outcome.status.ExitedWith(0));
    const bool daemon = std::string(GetParam().program) == kGakppcd;
    EXPECT_EQ(outcome.out, (daemon ? "gakppcd" : "gakppctl") + std::string(" (libgakppc) " GAKPPC_VERSION "\n"));
}

TEST_P(EveryCommand, UnknownOptionIsWrongUsageAndNothingIsPrinted)
{
    const Outcome outcome = RunTool(GetParam().program, Arguments(GetParam(), {"--no-such-option"}));
    EXPECT_TRUE(outcome.status.ExitedWith(2)) << outcome.status;
    EXPECT_EQ(outcome.out, "");
    EXPECT_NE(outcome.err, "");
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
    EXPECT_NE(text.find("\n\\f(CW$ "), std::string::npos) << "the examples are not on lines of their own:\n" << text;
}

INSTANTIATE_TEST_SUITE_P(Commands, EveryCommand,
                         testing::Values(Command{kGakppctl, ""}, Command{kGakppctl, "worker"},
                                         Command{kGakppctl, "send"}, Command{kGakppctl, "tap"},
                                         Command{kGakppctl, "replay"}, Command{kGakppctl, "decode"},
                                         Command{kGakppctl, "status"}, Command{kGakppctl, "doctor"},
                                         Command{kGakppcd, ""}));

TEST(GakppctlTest, NeedsASubcommand)
{
    EXPECT_TRUE(Ctl({}).status.ExitedWith(2));
    EXPECT_TRUE(Ctl({"dance"}).status.ExitedWith(2));
}

TEST(GakppctlTest, ClosedOutputIsAFailure)
{
    Tool tool("sh", {"-c", "exec \"$0\" status --list >&-", kGakppctl});
    EXPECT_TRUE(tool.Finish().ExitedWith(1)) << tool.err();
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
    EXPECT_EQ(Completions("gakppctl", std::string(kGakppctl) + " s"), " send status \n");
    EXPECT_NE(Completions("gakppctl", std::string(kGakppctl) + " ''").find(" doctor "), std::string::npos);
}

TEST(Completion, OffersOptionsOfTheSubcommand)
{
    EXPECT_EQ(Completions("gakppctl", std::string(kGakppctl) + " tap --li"), " --linger \n");
    EXPECT_EQ(Completions("gakppctl", std::string(kGakppctl) + " worker --cr"), " --crash-after \n");
}

TEST(Completion, OffersValues)
{
    EXPECT_EQ(Completions("gakppctl", std::string(kGakppctl) + " worker --type C"), " COMPUTE CUSTOM_COMPUTE \n");
    EXPECT_EQ(Completions("gakppctl", std::string(kGakppctl) + " send H"), " HEARTBEAT \n");
    EXPECT_EQ(Completions("gakppctl", std::string(kGakppctl) + " send --expect A"), " ABNORMAL \n");
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
