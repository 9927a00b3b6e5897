#ifndef GAKPPC_CONTROL_PATH_H
#define GAKPPC_CONTROL_PATH_H

#include <string>

namespace tools {

// Where gakppcd listens for orders, and gakppctl finds it, unless --control names another path: "control" in systemd's
// $RUNTIME_DIRECTORY, else in /run/gakppcd for root, else in $XDG_RUNTIME_DIR/gakppcd. Empty when there is none of
// them.
std::string DefaultControlPath();

// The same in words, for --help.
extern const char kDefaultControlPathHelp[];

// Why there is none.
extern const char kNoControlPath[];

}  // namespace tools

#endif
