#ifndef GAKPPC_TERMINAL_H
#define GAKPPC_TERMINAL_H

#include <cstddef>
#include <string>

namespace tools {

struct ScreenSize {
    size_t rows = 0;
    size_t columns = 0;
};

// Of standard output; 24 rows of 80 columns when it does not tell.
ScreenSize TerminalSize();

constexpr char kClearScreen[] = "\033[2J";
constexpr char kCursorHome[] = "\033[H";
constexpr char kClearLine[] = "\033[K";

// `text` in at most `width` columns; "..." stands for what is cut off its end.
std::string Cut(const std::string& text, size_t width);

// "1.5 s", "3 min", "4 d": in at most six columns.
std::string ShortDuration(double seconds);

}  // namespace tools

#endif
