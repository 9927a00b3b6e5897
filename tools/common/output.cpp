#include "output.h"

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <stdexcept>

#include "exit_error.h"

namespace tools {
namespace {

uint8_t HexDigit(char digit)
{
    if (digit >= '0' && digit <= '9') {
        return static_cast<uint8_t>(digit - '0');
    }
    const int lower = tolower(static_cast<unsigned char>(digit));
    if (lower >= 'a' && lower <= 'f') {
        return static_cast<uint8_t>(lower - 'a' + 10);
    }
    throw std::invalid_argument(fmt::format("{:?} is not a hexadecimal digit", digit));
}

bool HasPrefix(const std::string& text, const char* prefix)
{
    return text.compare(0, strlen(prefix), prefix) == 0;
}

}  // namespace

bool WriteOut(const std::string& text)
{
    size_t written = 0;
    while (written < text.size()) {
        const ssize_t result = write(STDOUT_FILENO, text.data() + written, text.size() - written);
        if (result >= 0) {
            written += static_cast<size_t>(result);
        } else if (errno == EAGAIN) {
            pollfd room{STDOUT_FILENO, POLLOUT, 0};
            poll(&room, 1, 1000);
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

void Print(const std::string& text)
{
    if (!WriteOut(text)) {
        throw ExitError(kExitFailed, errno == EPIPE ? "" : fmt::format("standard output: {}", strerror(errno)));
    }
}

std::string Printable(const std::string& text)
{
    const auto isPlain = [](char c) { return (c >= ' ' && c <= '~') || c == '\n'; };
    std::string result;
    for (auto at = text.begin(); at != text.end();) {
        const auto other = std::find_if_not(at, text.end(), isPlain);
        result.append(at, other);
        at = std::find_if(other, text.end(), isPlain);
        const std::string quoted = fmt::format("{:?}", std::string(other, at));
        result.append(quoted, 1, quoted.size() - 2);
    }
    return result;
}

bool OutputIsTerminal()
{
    const char* terminal = getenv("TERM");
    return isatty(STDOUT_FILENO) == 1 && terminal != nullptr && strcmp(terminal, "dumb") != 0;
}

bool OutputIsColoured()
{
    const char* refused = getenv("NO_COLOR");
    return OutputIsTerminal() && (refused == nullptr || *refused == '\0');
}

std::string UtcTime(SystemTime time)
{
    const auto micros = std::chrono::floor<std::chrono::microseconds>(time);
    const auto seconds = std::chrono::floor<std::chrono::seconds>(micros);
    return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:06}Z", fmt::gmtime(std::chrono::system_clock::to_time_t(seconds)),
                       (micros - seconds).count());
}

std::string ToHex(const Bytes& bytes)
{
    return fmt::format("{:02X}", fmt::join(bytes, ""));
}

Bytes FromHex(const std::string& text)
{
    Bytes bytes;
    std::istringstream groups(text);
    for (std::string group; groups >> group;) {
        const size_t first = HasPrefix(group, "0x") || HasPrefix(group, "0X") ? 2 : 0;
        if (group.size() % 2 != 0 || group.size() == first) {
            throw std::invalid_argument(fmt::format("\"{}\" is not a whole number of bytes", group));
        }
        for (size_t i = first; i < group.size(); i += 2) {
            bytes.push_back(static_cast<uint8_t>(HexDigit(group[i]) << 4 | HexDigit(group[i + 1])));
        }
    }
    return bytes;
}

}  // namespace tools
