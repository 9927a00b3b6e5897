#include "control_path.h"

#include <unistd.h>

#include <cstdlib>

namespace tools {
namespace {

// Empty unless it is an absolute path; of several, which colons separate, the first.
std::string DirectoryIn(const char* variable)
{
    const char* const value = getenv(variable);
    const std::string text = value == nullptr ? "" : value;
    return text.rfind('/', 0) == 0 ? text.substr(0, text.find(':')) : "";
}

}  // namespace

const char kDefaultControlPathHelp[] =
    "($RUNTIME_DIRECTORY/control if that is set, else /run/gakppcd/control for root, "
    "$XDG_RUNTIME_DIR/gakppcd/control for others)";

const char kNoControlPath[] = "neither RUNTIME_DIRECTORY nor XDG_RUNTIME_DIR is set";

std::string DefaultControlPath()
{
    if (const std::string given = DirectoryIn("RUNTIME_DIRECTORY"); !given.empty()) {
        return given + "/control";
    }
    if (geteuid() == 0) {
        return "/run/gakppcd/control";
    }
    const std::string own = DirectoryIn("XDG_RUNTIME_DIR");
    return own.empty() ? "" : own + "/gakppcd/control";
}

}  // namespace tools
