#include "exit_error.h"

#include <fmt/format.h>

#include <cstdio>

#include "output.h"

namespace tools {
namespace {

std::string& ProgramName()
{
    static std::string name = "gakppc";
    return name;
}

}  // namespace

void PrintError(const std::string& text)
{
    if (text.empty()) {
        return;
    }
    // fmt::print would throw where standard error cannot be written.
    static_cast<void>(fputs(fmt::format("{}: {}\n", ProgramName(), Printable(text)).c_str(), stderr));
}

void SetProgramName(const std::string& name)
{
    ProgramName() = name;
}

}  // namespace tools
