#include "exit_error.h"

#include <fmt/format.h>

#include <cstdio>

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
    fmt::print(stderr, "{}: {}\n", ProgramName(), text);
}

void SetProgramName(const std::string& name)
{
    ProgramName() = name;
}

}  // namespace tools
