#ifndef GAKPPC_BOARD_H
#define GAKPPC_BOARD_H

#include <sys/types.h>

#include <algorithm>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace demo {

// One line that the daemon or a worker prints: "PROGRAM: device D TYPE pid P WHAT".
struct Event {
    unsigned device = 0;
    std::string type;
    pid_t pid = 0;
    std::string what;
};

// Nothing for a line of another form.
std::optional<Event> ParseEvent(const std::string& line);

// What has been heard of one worker.
struct Row {
    unsigned device = 0;
    std::string type;
    pid_t pid = 0;
    unsigned heartbeats = 0;
    double lastHeartbeat = 0;  // seconds since the demonstration began
    std::string end;           // "exit 0", "signal 9"; empty while the process runs
    std::set<std::string> heard;

    bool Heard(const std::string& what) const { return heard.count(what) != 0; }
    std::string State() const;
};

// The twelve workers: four devices with one worker of each process type.
class Board {
public:
    Board();

    // False for a worker that has no place here.
    bool Apply(const Event& event, double now);

    const std::vector<Row>& Rows() const { return rows_; }
    const Row& At(unsigned device, const std::string& type) const;

    template <typename Predicate>
    unsigned Count(const Predicate& predicate) const
    {
        return static_cast<unsigned>(std::count_if(rows_.begin(), rows_.end(), predicate));
    }

    // The table, a line each, none longer than 79 characters.
    std::vector<std::string> Table() const;

private:
    Row* Find(unsigned device, const std::string& type);

    std::vector<Row> rows_;
};

// printf into a string.
std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace demo

#endif
