#ifndef GAKPPC_CLI_H
#define GAKPPC_CLI_H

#include <CLI/CLI.hpp>
#include <functional>
#include <string>
#include <vector>

#include "exit_error.h"

namespace tools {

// One subcommand: its command line, and what it does once that has been read. `run` returns the exit status.
struct Subcommand {
    CLI::App* app;
    std::function<int()> run;
    bool needsOutput = true;  // what it prints is its purpose: without standard output it fails
};

// What SIGINT and SIGTERM mean to a program.
enum class OnSignal {
    kInterrupted,  // it has not finished its task: exit status 128 and the signal's number
    kDone,         // running until a signal comes is its task: exit status 0
    kDoneIfWatch,  // the one or the other, as --watch is given
};

// Gives `app` what every program and subcommand has: -V, and examples and exit statuses at the end of --help. Besides
// those that all of them have, `statuses` are its own: kExitNoDaemon, kExitTimeLimit.
void AddStandardOptions(CLI::App& app, const std::string& examples, const std::vector<ExitCode>& statuses,
                        OnSignal onSignal = OnSignal::kInterrupted);

// Reads the command line and runs what it asks for: the subcommand that it names, or `run` of the only entry, whose app
// is `app` itself. `help COMMAND` is the same as `COMMAND --help`. Returns the exit status.
int RunProgram(CLI::App& app, const std::vector<Subcommand>& subcommands, int argc, char** argv);

// Accepts decimal numbers from 0 to `highest`, no infinity and no NaN.
CLI::Validator NumberUpTo(double highest);

// Accepts any text but none, which a variable that is not set leaves.
CLI::Validator NotEmpty();

// Adds an option that takes a time in seconds.
CLI::Option* AddSeconds(CLI::App& app, const std::string& name, double& seconds, const std::string& help);

// Adds an option that takes a number from 1 to `highest`.
template <typename Number>
CLI::Option* AddCount(CLI::App& app, const std::string& name, Number& count, const std::string& help,
                      Number highest = 1'000'000'000)
{
    return app.add_option(name, count, help)->check(CLI::Range(Number{1}, highest).description(""))->type_name("N");
}

}  // namespace tools

#endif
