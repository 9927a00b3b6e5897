#ifndef GAKPPC_VIEW_H
#define GAKPPC_VIEW_H

#include <deque>
#include <string>

#include "workers.h"

namespace tools {

// The daemon's output: on a terminal a table that is redrawn in place, in a pipe one line for each event, or JSON.
class View {
public:
    enum class Mode { kTable, kLines, kJson };

    View(Mode mode, const WorkerTable& workers) : mode_(mode), workers_(workers) {}
    ~View();
    View(const View&) = delete;
    View& operator=(const View&) = delete;

    Mode mode() const { return mode_; }

    // Something has happened, to a worker or, with null, to the daemon itself.
    void Event(const std::string& event, const Worker* worker = nullptr, const std::string& detail = "");

    // Something that is no event: a wrong command, a failed attempt. Goes to standard error unless a table is shown.
    void Note(const std::string& text);

    // Redraws the table. Does nothing in the other modes.
    void Refresh();

private:
    std::string Line(const std::string& event, const Worker* worker, const std::string& detail) const;
    std::string JsonEvent(const std::string& event, const Worker* worker, const std::string& detail) const;
    std::string Table() const;
    void Remember(const std::string& text);

    const Mode mode_;
    const WorkerTable& workers_;
    std::deque<std::string> last_;  // events below the table
    bool drawn_ = false;
};

}  // namespace tools

#endif
