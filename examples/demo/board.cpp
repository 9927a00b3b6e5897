#include "board.h"

#include <cstdarg>
#include <cstdio>
#include <stdexcept>

namespace demo {
namespace {

constexpr unsigned kDevices = 4;
constexpr const char* kTypes[] = {"ZOLT", "COMPUTE", "CUSTOM_COMPUTE"};

}  // namespace

std::string Format(const char* format, ...)
{
    char text[256] = "";
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    return text;
}

std::optional<Event> ParseEvent(const std::string& line)
{
    Event event;
    char type[32] = "";
    char what[64] = "";
    if (sscanf(line.c_str(), "%*[^:]: device %u %31s pid %d %63[^\n]", &event.device, type, &event.pid, what) != 4) {
        return std::nullopt;
    }
    event.type = type;
    event.what = what;
    return event;
}

std::string Row::State() const
{
    if (!end.empty()) {
        for (const char* cause : {"SHUTDOWN_RSP", "ABNORMAL", "SOCKET_CLOSE"}) {
            if (Heard(cause)) {
                return cause + (", " + end);
            }
        }
        return end;
    }
    for (const char* latest : {"SHUTDOWN_RSP", "SENT SHUTDOWN", "SOCKET_CLOSE", "ABNORMAL"}) {
        if (Heard(latest)) {
            return latest;
        }
    }
    if (Heard("NOTIFY_VEXOINFO") && !Heard("CUSTOM_READY")) {
        return "waits for custom";
    }
    if (Heard("START_RSP")) {
        return "running";
    }
    return pid != 0 ? "starting" : "not started";
}

Board::Board()
{
    for (unsigned device = 0; device < kDevices; ++device) {
        for (const char* type : kTypes) {
            Row row;
            row.device = device;
            row.type = type;
            rows_.push_back(row);
        }
    }
}

Row* Board::Find(unsigned device, const std::string& type)
{
    for (Row& row : rows_) {
        if (row.device == device && row.type == type) {
            return &row;
        }
    }
    return nullptr;
}

const Row& Board::At(unsigned device, const std::string& type) const
{
    const Row* row = const_cast<Board*>(this)->Find(device, type);
    if (row == nullptr) {
        throw std::out_of_range("no such worker: " + type);
    }
    return *row;
}

bool Board::Apply(const Event& event, double now)
{
    Row* row = Find(event.device, event.type);
    if (row == nullptr) {
        return false;
    }
    row->pid = event.pid;
    row->heard.insert(event.what);
    if (event.what == "HEARTBEAT") {
        ++row->heartbeats;
        row->lastHeartbeat = now;
    } else if (event.what.rfind("EXIT ", 0) == 0) {
        row->end = "exit " + event.what.substr(5);
    } else if (event.what.rfind("SIGNAL ", 0) == 0) {
        row->end = "signal " + event.what.substr(7);
    }
    return true;
}

std::vector<std::string> Board::Table() const
{
    std::vector<std::string> lines{
        Format("%-8s%-16s%-9s%-24s%s", "DEVICE", "PROCESS TYPE", "PID", "STATE", "LAST HEARTBEAT")};
    for (const Row& row : rows_) {
        const std::string pid = row.pid != 0 ? std::to_string(row.pid) : "-";
        const std::string beat =
            row.heartbeats != 0 ? Format("no. %u at %.1f s", row.heartbeats, row.lastHeartbeat) : "-";
        lines.push_back(Format("%-8u%-16s%-9s%-24s%s", row.device, row.type.c_str(), pid.c_str(), row.State().c_str(),
                               beat.c_str()));
    }
    return lines;
}

}  // namespace demo
