#ifndef GAKPPC_OUTPUT_H
#define GAKPPC_OUTPUT_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace tools {

using Bytes = std::vector<uint8_t>;
using SystemTime = std::chrono::system_clock::time_point;

// Writes all of `text` to standard output. False when its reader has gone or it cannot be written.
bool WriteOut(const std::string& text);

// WriteOut that ends the program (ExitError) when the text cannot be written.
void Print(const std::string& text);

// `text` with control characters and bytes that are no UTF-8 escaped as \x1b. Newlines stay. For text from outside:
// file names, arguments, strings in messages.
std::string Printable(const std::string& text);

// Whether standard output is a terminal that understands escape codes.
bool OutputIsTerminal();

// Whether colours are wanted: a terminal, and NO_COLOR is not set.
bool OutputIsColoured();

// "2031-02-03T04:05:06.123456Z".
std::string UtcTime(SystemTime time);

// "000000080A..." and back. The digits may be grouped by white space, each group may begin with 0x. Throws
// std::invalid_argument for anything else.
std::string ToHex(const Bytes& bytes);
Bytes FromHex(const std::string& text);

}  // namespace tools

#endif
