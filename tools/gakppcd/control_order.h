#ifndef GAKPPC_CONTROL_ORDER_H
#define GAKPPC_CONTROL_ORDER_H

#include <string>

#include "commands.h"

namespace tools {

// What one line on a control connection asks for.
struct ControlOrder {
    Command command;
    bool wait = false;  // answer when what was ordered has happened
};

// Throws std::invalid_argument for anything that docs/schema/control_order.json does not accept.
ControlOrder ParseOrder(const std::string& line);

}  // namespace tools

#endif
