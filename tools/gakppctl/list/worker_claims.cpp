#include "worker_claims.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <set>

#include "common/exit_error.h"
#include "gakppctl/control_client.h"

namespace tools {
namespace {

constexpr std::chrono::seconds kAnswerTime{1};

bool IsHeldBy(const ConnectionEnd& end, pid_t process)
{
    return std::any_of(end.processes.begin(), end.processes.end(),
                       [process](const SocketHolder& holder) { return holder.pid == process; });
}

// The numbers of the daemon's ends that a process holds.
std::set<uint32_t> EndsOf(pid_t process, const ServerSockets& found)
{
    std::set<uint32_t> ends;
    for (const ServerSocket& server : found.servers) {
        for (const Connection& connection : server.connections) {
            if (connection.daemon.socket != 0 && IsHeldBy(connection.daemon, process)) {
                ends.insert(connection.daemon.socket);
            }
        }
    }
    return ends;
}

Claims ClaimsIn(const Json& workers, const std::set<uint32_t>& ends)
{
    Claims claims;
    std::set<uint32_t> ambiguous;
    for (const Json& worker : workers) {
        if (worker.at("socket").is_null()) {
            continue;
        }
        const uint32_t socket = NumberIn(worker, "socket");
        const Claim claim{NumberIn(worker, "device"), worker.at("process_type").get<std::string>(),
                          NumberIn(worker, "pid")};
        if (ends.count(socket) > 0 && !claims.emplace(socket, claim).second) {
            ambiguous.insert(socket);
        }
    }
    for (const uint32_t socket : ambiguous) {
        claims.erase(socket);
    }
    return claims;
}

// Who answers is the kernel's to say: numbers of another machine or container mean nothing here.
Claims Ask(const ServerSockets& found, const std::string& path)
{
    ControlClient client(path, Deadline(kAnswerTime));
    const pid_t daemon = client.Daemon().pid;
    const std::set<uint32_t> ends = EndsOf(daemon, found);
    if (ends.empty()) {
        return {};
    }
    const Json answer = ParseControlAnswer(client.Ask("{\"order\":\"workers\"}\n"));
    return NumberIn(answer, "daemon") == static_cast<uint32_t>(daemon) ? ClaimsIn(answer.at("workers"), ends)
                                                                       : Claims{};
}

}  // namespace

Claims AskForClaims(const ServerSockets& found, const std::string& path)
{
    try {
        return Ask(found, path);
    } catch (const ExitError&) {
        return {};
    } catch (const Json::exception&) {
        return {};
    }
}

}  // namespace tools
