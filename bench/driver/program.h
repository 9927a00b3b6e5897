#ifndef GAKPPC_PROGRAM_H
#define GAKPPC_PROGRAM_H

#include <sys/types.h>

#include <cstdio>
#include <string>
#include <vector>

#include "commands.h"

namespace bench {

// A program that serves commands (commands.h), from its start to the end of this object. All programs run on one
// processor, the same for all. A program that fails ends the driver.
class Program {
public:
    explicit Program(const std::vector<std::string>& command);
    ~Program();
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    Values Ask(const std::string& name, int count, int parameter = 0);
    pid_t Pid() const { return pid_; }

private:
    std::string ReadLine();

    const std::string name_;
    pid_t pid_ = -1;
    FILE* requests_ = nullptr;
    FILE* answers_ = nullptr;
};

// The processor that the programs run on.
int BenchProcessor();

// Resident and anonymous memory (rss_kib, anon_kib) and threads of a process.
Values ProcessSize(pid_t pid);

[[noreturn]] void Fail(const std::string& text);

}  // namespace bench

#endif
