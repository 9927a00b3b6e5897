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

// Gives `app` what every program and subcommand has: --version, and examples at the end of --help.
void AddStandardOptions(CLI::App& app, const std::string& examples);

// Reads the command line and runs what it asks for: the subcommand that it names, or `run` of the only entry, whose app
// is `app` itself. Returns the exit status.
int RunProgram(CLI::App& app, const std::vector<Subcommand>& subcommands, int argc, char** argv);

// Adds an option that takes a time in seconds.
CLI::Option* AddSeconds(CLI::App& app, const std::string& name, double& seconds, const std::string& help);

}  // namespace tools

#endif
