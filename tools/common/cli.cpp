#include "cli.h"

#include <fmt/format.h>

#include <csignal>
#include <iostream>
#include <sstream>

#include "deadline.h"
#include "output.h"
#include "standard_fds.h"

namespace tools {
namespace {

// CLI11 has many codes of its own for a wrong command line.
int ExitOfParse(const CLI::App& app, const CLI::ParseError& error, bool hasOutput)
{
    std::ostringstream out;
    std::ostringstream err;
    const int code = app.exit(error, out, err);
    std::cerr << err.str();
    if (!out.str().empty() && !(hasOutput && WriteOut(out.str()))) {
        return kExitFailed;
    }
    return code == 0 ? kExitOk : kExitUsage;
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

}  // namespace

void AddStandardOptions(CLI::App& app, const std::string& examples)
{
    const CLI::App& program = app.get_parent() != nullptr ? *app.get_parent() : app;
    app.set_version_flag("--version", fmt::format("{} (libgakppc) {}", program.get_name(), GAKPPC_VERSION),
                         "Print the version and exit");
    app.footer("Examples:\n" + examples +
               "\n\nExit status: 0 success, 1 failed, 2 wrong usage, 3 no daemon, 124 time limit.");
}

int RunProgram(CLI::App& app, const std::vector<Subcommand>& subcommands, int argc, char** argv)
{
    const bool hasOutput = OpenMissingStandardFds();
    SetProgramName(app.get_name());
    signal(SIGPIPE, SIG_IGN);  // a reader that left shows as a failed write
    try {
        app.parse(argc, argv);
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

CLI::Option* AddSeconds(CLI::App& app, const std::string& name, double& seconds, const std::string& help)
{
    return app.add_option(name, seconds, help)
        ->check(CLI::Range(0.0, kLongestSeconds).description(""))
        ->type_name("SECONDS");
}

}  // namespace tools
