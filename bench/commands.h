#ifndef GAKPPC_COMMANDS_H
#define GAKPPC_COMMANDS_H

#include <functional>
#include <map>
#include <string>

namespace bench {

// What the driver asks of a program: a line "<name> <count> <parameter>" on standard input, answered by one line of
// "<key>=<value>" on standard output.
using Values = std::map<std::string, double>;
using Command = std::function<Values(int count, int parameter)>;

// Prints "ready", then serves commands until standard input ends.
void ServeCommands(const std::map<std::string, Command>& commands);

}  // namespace bench

#endif
