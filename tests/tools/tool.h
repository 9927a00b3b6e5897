#ifndef GAKPPC_TOOL_H
#define GAKPPC_TOOL_H

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "deadline.h"
#include "process.h"
#include "raw_peer.h"

// Runs the tools as a user would: as processes, with pipes or a terminal at their ends.
namespace gaktest {

extern const char kGakppctl[];
extern const char kGakppcd[];
constexpr int kServer = 19280;
constexpr std::chrono::seconds kLimit{20};

struct TerminalSize {
    unsigned short rows = 24;
    unsigned short columns = 100;
};

class Tool {
public:
    // Where standard output goes; kInteractive: standard input comes from that terminal as well.
    enum class Output { kPipe, kTerminal, kInteractive };

    // Starts `program` with these arguments. `environment` holds NAME=VALUE entries to add.
    Tool(const std::string& program, const std::vector<std::string>& arguments, Output output = Output::kPipe,
         const std::vector<std::string>& environment = {}, TerminalSize size = {});

    pid_t pid() const { return process_->pid(); }
    void Kill(int signal) { process_->Kill(signal); }

    void Write(const std::string& text);
    void CloseInput() { input_.Reset(); }
    void CloseOutput() { output_.Reset(); }

    // Changes the terminal's size. The program gets SIGWINCH only if the terminal controls it, which it does not here.
    void Resize(TerminalSize size);

    // Reads until `condition` holds.
    bool WaitUntilOutput(const std::function<bool()>& condition, Deadline deadline = kLimit);

    // Waits until standard output, or standard error, holds the text.
    bool WaitForOut(const std::string& text, Deadline deadline = kLimit) { return WaitFor(out_, text, deadline); }
    bool WaitForErr(const std::string& text, Deadline deadline = kLimit) { return WaitFor(err_, text, deadline); }

    // Closes standard input, collects all output and waits for the end.
    ExitStatus Finish(Deadline deadline = kLimit);

    const std::string& out() const { return out_; }
    const std::string& err() const { return err_; }

private:
    bool WaitFor(const std::string& where, const std::string& text, Deadline deadline);
    bool ReadSome(Deadline deadline);
    static void ReadInto(Fd& from, std::string& to);

    Fd input_, output_, error_;
    std::string out_, err_;
    std::unique_ptr<ChildProcess> process_;
};

// Runs a tool to its end with `input` on standard input.
struct Outcome {
    ExitStatus status;
    std::string out;
    std::string err;
};
Outcome RunTool(const std::string& program, const std::vector<std::string>& arguments, const std::string& input = "");
Outcome Ctl(const std::vector<std::string>& arguments, const std::string& input = "");

// Starts a program as the user nobody: from a copy, because the checkout may lie where only its owner comes to.
std::unique_ptr<Tool> StartAsNobody(const std::string& program, const std::vector<std::string>& arguments);
std::unique_ptr<Tool> StartCtlAsNobody(const std::vector<std::string>& arguments);

// Whether every line of `text`, and there is at least one, is JSON that docs/schema/<name>.json accepts.
testing::AssertionResult FitsSchema(const std::string& text, const std::string& name);

// Whether the main thread of a process waits in a system call.
bool IsAsleep(pid_t pid);

// How often it has begun to wait in one.
long TimesAsleep(pid_t pid);

size_t CountOf(const std::string& text, const std::string& part);

// A worker's message to the daemon.
RawMessage FromWorker(uint32_t type, uint32_t device = 0, uint32_t pid = 4711);

}  // namespace gaktest

#endif
