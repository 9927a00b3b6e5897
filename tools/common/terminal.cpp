#include "terminal.h"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdint>

namespace tools {

ScreenSize TerminalSize()
{
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == -1 || size.ws_row == 0 || size.ws_col == 0) {
        return {24, 80};
    }
    return {size.ws_row, size.ws_col};
}

std::string Cut(const std::string& text, size_t width)
{
    const std::string dots = "...";
    if (text.size() <= width) {
        return text;
    }
    return width <= dots.size() ? text.substr(0, width) : text.substr(0, width - dots.size()) + dots;
}

std::string ShortDuration(double seconds)
{
    const auto whole = static_cast<int64_t>(seconds);
    if (whole < 100) {
        return fmt::format("{}.{} s", whole, static_cast<int64_t>(seconds * 10) % 10);
    }
    if (whole < 1000) {
        return fmt::format("{} s", whole);
    }
    if (whole < 100L * 60) {
        return fmt::format("{} min", whole / 60);
    }
    return whole < 100L * 3600 ? fmt::format("{} h", whole / 3600) : fmt::format("{} d", whole / 86400);
}

}  // namespace tools
