#include "tool.h"

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <memory>
#include <stdexcept>

namespace gaktest {
namespace {

std::pair<Fd, Fd> Pipe()
{
    int fds[2] = {-1, -1};
    if (pipe2(fds, O_CLOEXEC) == -1) {
        throw std::runtime_error(std::string("pipe2: ") + strerror(errno));
    }
    return {Fd(fds[0]), Fd(fds[1])};
}

void SetSize(const Fd& terminal, TerminalSize size)
{
    const winsize window{size.rows, size.columns, 0, 0};
    ioctl(terminal.get(), TIOCSWINSZ, &window);
}

// The reading end and the terminal itself.
std::pair<Fd, Fd> Terminal(TerminalSize size)
{
    Fd master(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    if (grantpt(master.get()) == -1 || unlockpt(master.get()) == -1) {
        throw std::runtime_error(std::string("terminal: ") + strerror(errno));
    }
    Fd slave(open(ptsname(master.get()), O_RDWR | O_NOCTTY | O_CLOEXEC));
    SetSize(master, size);
    return {std::move(master), std::move(slave)};
}

int Execute(const std::string& program, const std::vector<std::string>& arguments,
            const std::vector<std::string>& environment, int input, int output, int error)
{
    std::vector<std::string> words{program};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> pointers;
    for (std::string& word : words) {
        pointers.push_back(word.data());
    }
    pointers.push_back(nullptr);
    for (const std::string& entry : environment) {
        const size_t equals = entry.find('=');
        setenv(entry.substr(0, equals).c_str(), entry.substr(equals + 1).c_str(), 1);
    }
    dup2(input, STDIN_FILENO);
    dup2(output, STDOUT_FILENO);
    dup2(error, STDERR_FILENO);
    execvp(program.c_str(), pointers.data());
    return 127;
}

}  // namespace

const char kGakppctl[] = GAKPPC_GAKPPCTL;
const char kGakppcd[] = GAKPPC_GAKPPCD;

Tool::Tool(const std::string& program, const std::vector<std::string>& arguments, Output output,
           const std::vector<std::string>& environment, TerminalSize size)
{
    auto [inputRead, inputWrite] = Pipe();
    auto [outputRead, outputWrite] = output == Output::kPipe ? Pipe() : Terminal(size);
    if (output == Output::kInteractive) {
        inputRead.Reset(fcntl(outputWrite.get(), F_DUPFD_CLOEXEC, 0));
        inputWrite.Reset(fcntl(outputRead.get(), F_DUPFD_CLOEXEC, 0));
    }
    auto [errorRead, errorWrite] = Pipe();
    const int in = inputRead.get();
    const int out = outputWrite.get();
    const int err = errorWrite.get();
    process_ = std::make_unique<ChildProcess>(
        [&, in, out, err] { return Execute(program, arguments, environment, in, out, err); });
    input_ = std::move(inputWrite);
    output_ = std::move(outputRead);
    error_ = std::move(errorRead);
}

void Tool::Write(const std::string& text)
{
    if (write(input_.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        ADD_FAILURE() << "standard input of the tool: " << strerror(errno);
    }
}

void Tool::ReadInto(Fd& from, std::string& to)
{
    char buffer[65536];
    const ssize_t count = read(from.get(), buffer, sizeof(buffer));
    if (count > 0) {
        to.append(buffer, static_cast<size_t>(count));
    } else if (count == 0 || errno != EINTR) {
        from.Reset();  // a terminal without a writer gives EIO
    }
}

bool Tool::ReadSome(Deadline deadline)
{
    if (!output_.valid() && !error_.valid()) {
        return false;
    }
    pollfd wanted[] = {{output_.get(), POLLIN, 0}, {error_.get(), POLLIN, 0}};
    if (poll(wanted, 2, deadline.RemainingMs()) <= 0) {
        return false;
    }
    if (wanted[0].revents != 0) {
        ReadInto(output_, out_);
    }
    if (wanted[1].revents != 0) {
        ReadInto(error_, err_);
    }
    return true;
}

void Tool::Resize(TerminalSize size)
{
    SetSize(output_, size);
}

bool Tool::WaitUntilOutput(const std::function<bool()>& condition, Deadline deadline)
{
    while (!condition()) {
        if (!ReadSome(deadline)) {
            return false;
        }
    }
    return true;
}

bool Tool::WaitFor(const std::string& where, const std::string& text, Deadline deadline)
{
    while (where.find(text) == std::string::npos) {
        if (!ReadSome(deadline)) {
            ADD_FAILURE() << "\"" << text << "\" has not come; output:\n" << out_ << "errors:\n" << err_;
            return false;
        }
    }
    return true;
}

ExitStatus Tool::Finish(Deadline deadline)
{
    input_.Reset();
    while (ReadSome(deadline)) {
    }
    return process_->WaitExit(deadline);
}

Outcome RunTool(const std::string& program, const std::vector<std::string>& arguments, const std::string& input)
{
    Tool tool(program, arguments);
    if (!input.empty()) {
        tool.Write(input);
    }
    const ExitStatus status = tool.Finish();
    return {status, tool.out(), tool.err()};
}

Outcome Ctl(const std::vector<std::string>& arguments, const std::string& input)
{
    return RunTool(kGakppctl, arguments, input);
}

std::unique_ptr<Tool> StartAsNobody(const std::string& program, const std::vector<std::string>& arguments)
{
    const std::string script =
        "mkdir -p /home/copy && cd /home/copy && "
        "cp \"$0\" $(LD_TRACE_LOADED_OBJECTS=1 \"$0\" | sed -n 's/.* => \\(.*\\) (.*/\\1/p') . && "
        "exec setpriv --reuid=65534 --regid=65534 --clear-groups env LD_LIBRARY_PATH=. \"./${0##*/}\" \"$@\"";
    std::vector<std::string> words{"-c", script, program};
    words.insert(words.end(), arguments.begin(), arguments.end());
    return std::make_unique<Tool>("sh", words);
}

testing::AssertionResult FitsSchema(const std::string& text, const std::string& name)
{
    const std::string schema = std::string(GAKPPC_SCHEMA_DIR) + "/" + name + ".json";
    const Outcome check = RunTool("python3", {GAKPPC_CHECK_JSON, schema}, text);
    return check.status.ExitedWith(0) ? testing::AssertionSuccess()
                                      : testing::AssertionFailure() << check.out << check.err << "in:\n"
                                                                    << text;
}

std::unique_ptr<Tool> StartCtlAsNobody(const std::vector<std::string>& arguments)
{
    return StartAsNobody(kGakppctl, arguments);
}

bool IsAsleep(pid_t pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string id, name, state;
    in >> id >> name >> state;
    return state == "S";
}

long TimesAsleep(pid_t pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    const std::string key = "voluntary_ctxt_switches:";
    for (std::string line; std::getline(in, line);) {
        if (line.rfind(key, 0) == 0) {
            return std::stol(line.substr(key.size()));
        }
    }
    return 0;
}

size_t CountOf(const std::string& text, const std::string& part)
{
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) {
        ++count;
    }
    return count;
}

RawMessage FromWorker(uint32_t type, uint32_t device, uint32_t pid)
{
    RawMessage message;
    message.type = type;
    message.src_id = device;
    message.dest_id = kServer;
    message.proc_type = 1;
    message.sub_proc_pid = pid;
    return message;
}

}  // namespace gaktest
