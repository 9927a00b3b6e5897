#ifndef GAKPPC_VIEW_H
#define GAKPPC_VIEW_H

#include <cstddef>
#include <deque>
#include <string>
#include <vector>

#include "common/terminal.h"
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

    // Whether events could not be written, which ends the daemon. A table has none to lose: when its terminal hangs up,
    // the kernel sends SIGHUP, which ends the daemon unless it is ignored.
    bool HasLostEvents() const { return outputIsGone_ && mode_ != Mode::kTable; }

    // Something has happened, to a worker or, with null, to the daemon itself.
    void Event(const std::string& event, const Worker* worker = nullptr, const std::string& detail = "");

    // Something that is no event, as a failed attempt. Goes to standard error unless a table is shown.
    void Note(const std::string& text);

    // The answer to a command, of any number of lines; empty when there is nothing to say. A table shows it below
    // itself, instead of the last events, until the next answer.
    void Answer(const std::string& text);

    // What stands in the bottom row, in front of what is typed. Only seen with a table.
    void SetPrompt(const std::string& text);

    // Redraws the table, in the terminal's present size. Does nothing in the other modes, or when the terminal has
    // gone, or while a shell has this process in the background.
    void Refresh();

    // The next Refresh clears the terminal, where somebody else has written, and draws everything.
    void Redraw() { drawnSize_ = {}; }

private:
    std::string Line(const std::string& event, const Worker* worker, const std::string& detail) const;
    std::string JsonEvent(const std::string& event, const Worker* worker, const std::string& detail) const;
    static std::string ShortLine(const std::string& event, const Worker* worker, const std::string& detail);
    std::string Title(size_t width) const;
    std::vector<std::string> BottomLines(size_t height, size_t width) const;
    // The whole screen but its bottom row: the title, the table and the bottom lines.
    std::vector<std::string> Lines(size_t height, size_t width) const;
    void Remember(const std::string& text);
    // Writes as long as there is somebody to read.
    void Write(const std::string& text);

    const Mode mode_;
    const WorkerTable& workers_;
    std::deque<std::string> last_;  // events below the table
    std::deque<std::string> answer_;
    std::string prompt_ = "> ";
    bool promptIsDrawn_ = false;
    bool outputIsGone_ = false;
    ScreenSize drawnSize_;
};

}  // namespace tools

#endif
