#include "commands.h"

#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <sstream>
#include <stdexcept>

namespace tools {

const char kCommandHelp[] =
    "  shutdown DEVICE PID      tell one worker to shut down\n"
    "  shutdown all             tell every worker to shut down\n"
    "  start-custom DEVICE PID  start the custom process that a worker has asked for\n"
    "  help                     show these commands\n"
    "  quit                     shut everything down and end";

namespace {

constexpr size_t kLongestLine = 4096;

Command AboutWorker(CommandKind kind, std::istringstream& words, const std::string& line)
{
    Command command;
    command.kind = kind;
    std::string rest;
    if (!(words >> command.device >> command.pid) || words >> rest) {
        throw std::invalid_argument(
            fmt::format("a device and a process id are needed, not \"{}\"\n{}", line, kCommandHelp));
    }
    return command;
}

}  // namespace

Command ParseCommand(const std::string& line)
{
    std::istringstream words(line);
    std::string name, second, third;
    words >> name >> second >> third;
    if (name == "quit" && second.empty()) {
        return {};
    }
    if (name == "help" && second.empty()) {
        return {CommandKind::kHelp, 0, 0};
    }
    if (name == "shutdown" && second == "all" && third.empty()) {
        return {CommandKind::kShutdownAll, 0, 0};
    }
    std::istringstream again(line);
    again >> name;
    if (name == "shutdown") {
        return AboutWorker(CommandKind::kShutdown, again, line);
    }
    if (name == "start-custom") {
        return AboutWorker(CommandKind::kStartCustom, again, line);
    }
    throw std::invalid_argument(fmt::format("unknown command \"{}\"\n{}", line, kCommandHelp));
}

bool IsInBackground(int terminal)
{
    const pid_t foreground = tcgetpgrp(terminal);
    return foreground != -1 && foreground != getpgrp();
}

// On a terminal Ctrl-D ends a line, not the input, as long as the terminal is there.
bool LineReader::IsEnd(ssize_t count) const
{
    if (count == 0) {
        pollfd terminal{fd_, 0, 0};
        return isatty(fd_) == 0 || (poll(&terminal, 1, 0) == 1 && (terminal.revents & POLLHUP) != 0);
    }
    return count == -1 && errno != EINTR && errno != EAGAIN && !IsInBackground(fd_);
}

std::vector<std::string> LineReader::Take()
{
    char buffer[1024];
    const ssize_t count = read(fd_, buffer, sizeof(buffer));
    atEnd_ = IsEnd(count);
    pending_.append(buffer, count > 0 ? static_cast<size_t>(count) : 0);
    if (atEnd_ && !pending_.empty()) {
        pending_ += '\n';  // the last line may lack it
    }
    std::vector<std::string> lines;
    for (size_t end = 0; (end = pending_.find('\n')) != std::string::npos;) {
        if (end > 0) {
            lines.push_back(pending_.substr(0, end));
        }
        pending_.erase(0, end + 1);
    }
    if (pending_.size() > kLongestLine) {
        pending_.resize(kLongestLine);
    }
    return lines;
}

}  // namespace tools
