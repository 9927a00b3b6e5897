#ifndef GAKPPC_COMMANDS_H
#define GAKPPC_COMMANDS_H

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace tools {

// What may be written to the daemon's standard input, one command a line. gakppctl gives the same commands through the
// control socket (control_order.h).
extern const char kCommandHelp[];

enum class CommandKind {
    kShutdown,     // one worker
    kShutdownAll,  // every worker
    kStartCustom,  // the custom process that a worker has asked for
    kWorkers,      // the table, which is only asked for through the control socket
    kHelp,         // these commands
    kQuit,         // the daemon
};

struct Command {
    CommandKind kind = CommandKind::kQuit;
    uint32_t device = 0;
    uint32_t pid = 0;
};

// Throws std::invalid_argument for anything that is no command.
Command ParseCommand(const std::string& line);

// Whether `terminal` controls this process, which a shell has in the background: reading fails then, and what is
// written stands across the shell's own lines.
bool IsInBackground(int terminal);

// Reads lines from a descriptor that poll(2) has reported. Lines that are longer than any command are cut.
class LineReader {
public:
    explicit LineReader(int fd) : fd_(fd) {}

    // The complete lines that have come, without empty ones.
    std::vector<std::string> Take();

    bool AtEnd() const { return atEnd_; }
    bool CanRead() const { return !atEnd_ && !IsInBackground(fd_); }

private:
    bool IsEnd(ssize_t count) const;

    int fd_;
    std::string pending_;
    bool atEnd_ = false;
};

}  // namespace tools

#endif
