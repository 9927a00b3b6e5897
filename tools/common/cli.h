#ifndef GAKPPC_CLI_H
#define GAKPPC_CLI_H

#include <CLI/CLI.hpp>
#include <functional>
#include <string>
#include <vector>

#include "failure.h"

namespace tools {

// One verb: its command line, and what it does once that has been read. `run` returns the exit status.
struct Verb {
    CLI::App* app;
    std::function<int()> run;
};

// Gives `app` what every program and verb has: --version, and examples at the end of --help.
void SetManners(CLI::App& app, const std::string& examples);

// Reads the command line and runs what it asks for: the verb that it names, or `run` of the only entry, whose app is
// `app` itself. Returns the exit status.
int RunProgram(CLI::App& app, const std::vector<Verb>& verbs, int argc, char** argv);

// Adds an option that takes a time in seconds.
CLI::Option* AddSeconds(CLI::App& app, const std::string& name, double& seconds, const std::string& help);

}  // namespace tools

#endif
