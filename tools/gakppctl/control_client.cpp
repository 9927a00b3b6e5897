#include "control_client.h"

#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <nlohmann/json.hpp>

#include "common/cli.h"
#include "common/control_path.h"
#include "common/exit_error.h"

namespace tools {
namespace {

// Some ten thousand workers.
constexpr size_t kLongestAnswer = 16UL * 1024 * 1024;
// The values of a worker, in it, in the list of them, in the answer. What is deeper is left out.
constexpr int kDeepest = 3;

std::string ControlPath(const std::string& given)
{
    std::string path = given.empty() ? DefaultControlPath() : given;
    if (path.empty()) {
        throw ExitError(kExitUsage, fmt::format("--control is needed: {}", kNoControlPath));
    }
    if (path.size() >= sizeof(sockaddr_un::sun_path)) {
        throw ExitError(kExitUsage, fmt::format("--control: {:.40}... is too long for a socket", path));
    }
    return path;
}

ExitError NoGakppcd()
{
    return {kExitFailed, "what answers there is no gakppcd"};
}

}  // namespace

void AddControlOption(CLI::App& app, std::string& path)
{
    app.add_option("--control", path, fmt::format("The daemon's control socket {}", kDefaultControlPathHelp))
        ->check(NotEmpty())
        ->type_name("PATH");
}

ControlClient::ControlClient(const std::string& path, const Deadline& deadline)
    : deadline_(deadline), socket_(ConnectToDaemon(deadline, ControlPath(path).c_str()))
{
}

std::string ControlClient::Ask(const std::string& order)
{
    SendAll(socket_, Bytes(order.begin(), order.end()), deadline_);
    std::string answer;
    while (answer.empty() || answer.back() != '\n') {
        if (!Read(answer)) {
            throw ExitError(kExitFailed, "the daemon has ended the connection without an answer");
        }
    }
    return answer;
}

void ControlClient::WaitForEnd()
{
    std::string rest;
    while (Read(rest)) {
    }
}

// Appends what comes; false at the end of the connection.
bool ControlClient::Read(std::string& text)
{
    char buffer[65536];
    if (text.size() > kLongestAnswer) {
        throw ExitError(kExitFailed, "the answer is too long");
    }
    if (!WaitReadable(socket_.get(), deadline_)) {
        throw ExitError(kExitTimeLimit, "the daemon has not answered in time");
    }
    const ssize_t count = recv(socket_.get(), buffer, sizeof(buffer), MSG_DONTWAIT);
    text.append(buffer, count > 0 ? static_cast<size_t>(count) : 0);
    return count > 0 || (count == -1 && (errno == EAGAIN || errno == EINTR));
}

Json ParseControlAnswer(const std::string& line)
{
    const auto isWanted = [](int depth, Json::parse_event_t /*event*/, const Json& /*value*/) {
        return depth <= kDeepest;
    };
    Json answer = Json::parse(line, isWanted, false);
    if (!answer.is_object() || !answer["ok"].is_boolean()) {
        throw NoGakppcd();
    }
    return answer;
}

uint32_t NumberIn(const Json& object, const char* name)
{
    const auto member = object.is_object() ? object.find(name) : object.end();
    if (member == object.end() || !member->is_number_unsigned() || member->get<uint64_t>() > UINT32_MAX) {
        throw NoGakppcd();
    }
    return member->get<uint32_t>();
}

}  // namespace tools
