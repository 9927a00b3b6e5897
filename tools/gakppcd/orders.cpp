#include "orders.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <sstream>
#include <stdexcept>

namespace tools {
namespace {

constexpr size_t kLongestLine = 4096;

Order AboutWorker(OrderKind kind, std::istringstream& words, const std::string& line)
{
    Order order;
    order.kind = kind;
    std::string rest;
    if (!(words >> order.device >> order.pid) || words >> rest) {
        throw std::invalid_argument(fmt::format("\"{}\" needs a device and a process id", line));
    }
    return order;
}

}  // namespace

const char kOrderHelp[] =
    "  shutdown DEVICE PID      order one worker to shut down\n"
    "  shutdown all             order every worker to shut down\n"
    "  start-custom DEVICE PID  start the custom process that a worker has asked for\n"
    "  quit                     shut everything down and end";

Order ParseOrder(const std::string& line)
{
    std::istringstream words(line);
    std::string verb, second, third;
    words >> verb >> second >> third;
    if (verb == "quit" && second.empty()) {
        return {};
    }
    if (verb == "shutdown" && second == "all" && third.empty()) {
        return {OrderKind::kShutdownAll, 0, 0};
    }
    std::istringstream again(line);
    again >> verb;
    if (verb == "shutdown") {
        return AboutWorker(OrderKind::kShutdown, again, line);
    }
    if (verb == "start-custom") {
        return AboutWorker(OrderKind::kStartCustom, again, line);
    }
    throw std::invalid_argument(fmt::format("\"{}\" is no order; orders are:\n{}", line, kOrderHelp));
}

std::vector<std::string> LineReader::Take()
{
    char buffer[1024];
    const ssize_t count = read(fd_, buffer, sizeof(buffer));
    atEnd_ = count == 0 || (count == -1 && errno != EINTR && errno != EAGAIN);
    pending_.append(buffer, count > 0 ? static_cast<size_t>(count) : 0);
    if (atEnd_ && !pending_.empty()) {
        pending_ += '\n';  // the last line may lack it
    }
    std::vector<std::string> lines;
    for (size_t end = 0; (end = pending_.find('\n')) != std::string::npos;) {
        if (end > 0) {
            lines.push_back(pending_.substr(0, end));
        }
        pending_.erase(0, end + 1);
    }
    if (pending_.size() > kLongestLine) {
        pending_.resize(kLongestLine);
    }
    return lines;
}

}  // namespace tools
