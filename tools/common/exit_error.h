#ifndef GAKPPC_EXIT_ERROR_H
#define GAKPPC_EXIT_ERROR_H

#include <stdexcept>
#include <string>

namespace tools {

// Exit statuses of all programs and subcommands.
enum ExitCode {
    kExitOk = 0,
    kExitFailed = 1,
    kExitUsage = 2,
    kExitNoDaemon = 3,
    kExitTimeLimit = 124,
    kExitSignal = 128,  // and the number of the signal
};

// Ends the program: the text, unless it is empty, goes to standard error, `code` becomes the exit status.
class ExitError : public std::runtime_error {
public:
    ExitError(ExitCode code, const std::string& text) : std::runtime_error(text), code_(code) {}
    ExitCode code() const { return code_; }

private:
    ExitCode code_;
};

// Writes "<program>: <text>" to standard error; nothing when there is no text.
void PrintError(const std::string& text);

// The name that PrintError writes.
void SetProgramName(const std::string& name);

}  // namespace tools

#endif
