#include "list_printer.h"

#include <fmt/color.h>
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <utility>

#include "common/message.h"
#include "common/ppc_socket.h"
#include "common/terminal.h"
#include "gakppctl/doctor/identity.h"

namespace tools {
namespace {

constexpr char kUnknown[] = "unknown";
constexpr size_t kLongestName = 20;
constexpr char kIncomplete[] =
    "not all processes can be seen: connections from other network namespaces may be missing (root sees all)";

using Cells = std::vector<std::string>;
using Connections = std::vector<const Connection*>;

// A name from outside in one short line.
std::string Plain(const std::string& text)
{
    std::string plain = Printable(text);
    for (size_t at = plain.find('\n'); at != std::string::npos; at = plain.find('\n', at)) {
        plain.replace(at, 1, "\\n");
    }
    return Cut(plain, kLongestName);
}

template <typename T>
std::string OrUnknown(const std::optional<T>& value)
{
    return value.has_value() ? fmt::format("{}", *value) : kUnknown;
}

std::string UserCell(const std::optional<uid_t>& user)
{
    return user.has_value() ? Plain(UserName(*user)) : kUnknown;
}

std::string ProgramCell(const SocketHolder& holder)
{
    return holder.program.has_value() ? Plain(*holder.program) : kUnknown;
}

std::string AgeCell(const SocketHolder& holder, SystemTime now)
{
    return holder.started.has_value()
               ? ShortDuration(std::max(std::chrono::duration<double>(now - *holder.started).count(), 0.0))
               : kUnknown;
}

std::set<pid_t> TapsIn(const ServerSockets& found)
{
    std::set<pid_t> taps;
    for (const ServerSocket& server : found.servers) {
        for (const SocketHolder& holder : server.processes) {
            if (server.isTap) {
                taps.insert(holder.pid);
            }
        }
    }
    return taps;
}

bool IsHeldBy(const ConnectionEnd& end, const std::set<pid_t>& processes)
{
    return std::any_of(end.processes.begin(), end.processes.end(),
                       [&processes](const SocketHolder& holder) { return processes.count(holder.pid) > 0; });
}

const Claim* ClaimOf(const Connection& connection, const Claims& claims)
{
    const auto found = claims.find(connection.daemon.socket);
    return connection.daemon.socket == 0 || found == claims.end() ? nullptr : &found->second;
}

uint32_t MostUnread(const Connection& connection)
{
    return std::max(connection.daemon.unread.value_or(0), connection.worker.unread.value_or(0));
}

pid_t PidOf(const Connection& connection)
{
    return connection.worker.processes.empty() ? 0 : connection.worker.processes.front().pid;
}

Connections Sorted(const ServerSocket& server)
{
    Connections sorted;
    sorted.reserve(server.connections.size());
    for (const Connection& connection : server.connections) {
        sorted.push_back(&connection);
    }
    std::sort(sorted.begin(), sorted.end(), [](const Connection* left, const Connection* right) {
        return std::tuple(MostUnread(*right), PidOf(*left), left->daemon.socket, left->worker.socket) <
               std::tuple(MostUnread(*left), PidOf(*right), right->daemon.socket, right->worker.socket);
    });
    return sorted;
}

size_t CountPending(const ServerSocket& server)
{
    return static_cast<size_t>(
        std::count_if(server.connections.begin(), server.connections.end(),
                      [](const Connection& connection) { return connection.state == ConnectionState::kPending; }));
}

// What is unusual about a connection.
std::string NoteCell(const Connection& connection, const std::set<pid_t>& taps)
{
    std::vector<std::string> notes;
    if (connection.state == ConnectionState::kPending) {
        notes.emplace_back("pending");
    }
    if (connection.state == ConnectionState::kEnded) {
        notes.emplace_back("ended");
    }
    if (IsHeldBy(connection.worker, taps)) {
        notes.emplace_back("tap");
    }
    std::vector<pid_t> others;
    others.reserve(connection.worker.processes.size());
    for (const SocketHolder& holder : connection.worker.processes) {
        others.push_back(holder.pid);
    }
    if (others.size() > 1) {
        notes.push_back(fmt::format("also held by {}", fmt::join(others.begin() + 1, others.end(), " ")));
    }
    return fmt::format("{}", fmt::join(notes, ", "));
}

Cells ClaimCells(const Claim* claim)
{
    return claim == nullptr
               ? Cells{kUnknown, kUnknown, kUnknown}
               : Cells{fmt::format("{}", claim->device), Plain(claim->processType), fmt::format("{}", claim->pid)};
}

Cells CellsOf(const Connection& connection, const Listing& listing, const std::set<pid_t>& taps)
{
    const auto& processes = connection.worker.processes;
    const SocketHolder holder = processes.empty() ? SocketHolder{} : processes.front();
    Cells cells{processes.empty() ? kUnknown : fmt::format("{}", holder.pid), UserCell(connection.worker.user),
                ProgramCell(holder), AgeCell(holder, listing.time)};
    cells.push_back(OrUnknown(connection.daemon.unread));
    cells.push_back(OrUnknown(connection.worker.unread));
    if (!listing.claims.empty()) {
        const Cells claim = ClaimCells(ClaimOf(connection, listing.claims));
        cells.insert(cells.end(), claim.begin(), claim.end());
    }
    cells.push_back(NoteCell(connection, taps));
    return cells;
}

Cells HeaderCells(const Listing& listing)
{
    return listing.claims.empty()
               ? Cells{"PID", "USER", "PROGRAM", "AGE", "TO DAEMON", "TO WORKER", "NOTE"}
               : Cells{"PID", "USER", "PROGRAM", "AGE", "TO DAEMON", "TO WORKER", "DEVICE", "TYPE", "CLAIMS", "NOTE"};
}

// Names stand at the left of their columns, all else at the right.
bool IsLeftAligned(const std::string& header)
{
    return header == "USER" || header == "PROGRAM" || header == "TYPE" || header == "NOTE";
}

std::vector<size_t> WidthsOf(const std::vector<Cells>& rows)
{
    std::vector<size_t> widths(rows.front().size());
    for (const Cells& row : rows) {
        for (size_t i = 0; i < row.size(); ++i) {
            widths[i] = std::max(widths[i], row[i].size());
        }
    }
    return widths;
}

// The first row is the header.
std::vector<std::string> Align(const std::vector<Cells>& rows)
{
    const std::vector<size_t> widths = WidthsOf(rows);
    std::vector<std::string> lines;
    lines.reserve(rows.size());
    for (const Cells& row : rows) {
        std::string line;
        for (size_t i = 0; i < row.size(); ++i) {
            line += IsLeftAligned(rows.front()[i]) ? fmt::format("  {:<{}}", row[i], widths[i])
                                                   : fmt::format("  {:>{}}", row[i], widths[i]);
        }
        lines.push_back(line.substr(0, line.find_last_not_of(' ') + 1));
    }
    return lines;
}

std::string ProcessText(const ServerSocket& server, SystemTime now)
{
    if (server.processes.empty()) {
        return "of an unknown process";
    }
    const SocketHolder& holder = server.processes.front();
    const size_t others = server.processes.size() - 1;
    return fmt::format("{} ({}{}), started {} ago", holder.pid, ProgramCell(holder),
                       others > 0 ? fmt::format(", and {} more", others) : "", AgeCell(holder, now));
}

const char* ReachText(const ServerSocket& server)
{
    if (server.socket == 0) {
        return "; it no longer listens";
    }
    switch (server.reach) {
        case Reach::kDirect:
            return server.isTap ? "; it stands in front of the daemon" : "";
        case Reach::kThroughTap:
            return "; a tap stands in front of it";
        case Reach::kNone:
            return "; nobody who connects now comes to it";
        default:
            return "; whether it is reached is unknown";
    }
}

std::string Title(const ServerSocket& server, SystemTime now)
{
    const size_t pending = CountPending(server);
    return fmt::format("{} {}, user {}: {} connection{}{}{}", server.isTap ? "tap" : "daemon", ProcessText(server, now),
                       UserCell(server.user), server.connections.size(), server.connections.size() == 1 ? "" : "s",
                       pending > 0 ? fmt::format(", {} pending", pending) : "", ReachText(server));
}

void AddTable(const ServerSocket& server, const Listing& listing, size_t width, bool coloured,
              std::vector<std::string>& lines)
{
    const std::set<pid_t> taps = TapsIn(listing.found);
    const Connections connections = Sorted(server);
    std::vector<Cells> rows{HeaderCells(listing)};
    for (const Connection* connection : connections) {
        rows.push_back(CellsOf(*connection, listing, taps));
    }
    const std::vector<std::string> table = Align(rows);
    lines.push_back(Cut(table.front(), width));
    for (size_t i = 0; i < connections.size(); ++i) {
        const std::string row = Cut(table[i + 1], width);
        const bool isMarked = coloured && MostUnread(*connections[i]) > 0;
        lines.push_back(isMarked ? fmt::format(fg(fmt::terminal_color::yellow), "{}", row) : row);
    }
}

Json OrNull(const std::optional<uint32_t>& value)
{
    return value.has_value() ? Json(*value) : Json();
}

Json NumberOrNull(uint32_t socket)
{
    return socket != 0 ? Json(socket) : Json();
}

// To the second.
Json StartTime(const std::optional<SystemTime>& time)
{
    return time.has_value() ? Json(UtcTime(*time).substr(0, 19) + "Z") : Json();
}

void AddUser(const std::optional<uid_t>& user, Json& line)
{
    line["uid"] = user.has_value() ? Json(*user) : Json();
    line["user"] = user.has_value() ? Json(UserName(*user)) : Json();
}

Json ToJson(const std::vector<SocketHolder>& holders)
{
    Json processes = Json::array();
    for (const SocketHolder& holder : holders) {
        Json process;
        process["pid"] = holder.pid;
        process["program"] = holder.program.has_value() ? Json(*holder.program) : Json();
        process["started"] = StartTime(holder.started);
        process["descriptors"] = holder.descriptors;
        processes.push_back(process);
    }
    return processes;
}

Json ToJson(const ConnectionEnd& end)
{
    Json json;
    json["socket"] = NumberOrNull(end.socket);
    json["processes"] = ToJson(end.processes);
    return json;
}

const char* Name(Reach reach)
{
    constexpr const char* kNames[] = {"direct", "through_tap", "none", "unknown"};
    return kNames[static_cast<size_t>(reach)];
}

const char* Name(ConnectionState state)
{
    constexpr const char* kNames[] = {"established", "pending", "ended"};
    return kNames[static_cast<size_t>(state)];
}

Json NewLine(const char* kind, SystemTime time)
{
    Json line;
    line["time"] = UtcTime(time);
    line["kind"] = kind;
    return line;
}

Json ServerJson(const ServerSocket& server, size_t number, const Listing& listing)
{
    Json line = NewLine("server", listing.time);
    line["server"] = number;
    line["role"] = server.isTap ? "tap" : "daemon";
    line["reach"] = Name(server.reach);
    line["socket"] = NumberOrNull(server.socket);
    AddUser(server.user, line);
    line["processes"] = ToJson(server.processes);
    line["connections"] = server.connections.size();
    line["pending"] = CountPending(server);
    line["complete"] = listing.found.complete;
    return line;
}

Json ConnectionJson(const Connection& connection, size_t number, const Listing& listing, const std::set<pid_t>& taps)
{
    const Claim* claim = ClaimOf(connection, listing.claims);
    const auto& processes = connection.worker.processes;
    Json line = NewLine("connection", listing.time);
    line["server"] = number;
    line["state"] = Name(connection.state);
    line["device"] = claim != nullptr ? Json(claim->device) : Json();
    line["process_type"] = claim != nullptr ? Json(claim->processType) : Json();
    line["claimed_pid"] = claim != nullptr ? Json(claim->pid) : Json();
    line["pid"] = processes.empty() ? Json() : Json(processes.front().pid);
    AddUser(connection.worker.user, line);
    line["to_daemon"] = OrNull(connection.daemon.unread);
    line["to_worker"] = OrNull(connection.worker.unread);
    line["is_tap"] = processes.empty() ? Json() : Json(IsHeldBy(connection.worker, taps));
    line["worker"] = ToJson(connection.worker);
    line["daemon"] = ToJson(connection.daemon);
    return line;
}

}  // namespace

std::vector<std::string> TextLines(const Listing& listing, size_t width, bool coloured)
{
    std::vector<std::string> lines;
    for (const ServerSocket& server : listing.found.servers) {
        lines.push_back(Cut(Title(server, listing.time), width));
        if (!server.connections.empty()) {
            AddTable(server, listing, width, coloured, lines);
        }
    }
    if (listing.found.servers.empty()) {
        lines.push_back(Cut(fmt::format("no daemon listens at {}", kSocketPath), width));
    }
    if (!listing.found.complete) {
        lines.push_back(Cut(kIncomplete, width));
    }
    return lines;
}

std::string JsonLines(const Listing& listing)
{
    const std::set<pid_t> taps = TapsIn(listing.found);
    std::string text;
    size_t number = 0;
    for (const ServerSocket& server : listing.found.servers) {
        text += JsonLine(ServerJson(server, ++number, listing));
        for (const Connection* connection : Sorted(server)) {
            text += JsonLine(ConnectionJson(*connection, number, listing, taps));
        }
    }
    return text.empty() ? JsonLine(NewLine("no_server", listing.time)) : text;
}

}  // namespace tools
