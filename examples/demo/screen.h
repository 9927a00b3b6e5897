#ifndef GAKPPC_SCREEN_H
#define GAKPPC_SCREEN_H

#include <cstddef>
#include <string>

#include "board.h"

namespace demo {

// Shows the board on standard output. On a terminal that is large enough the table stands still and its cells change;
// elsewhere every change is one plain line, and the table follows at the end of each part.
class Screen {
public:
    Screen();
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

    void BeginPart(const std::string& title, const Board& board);
    void Change(const Event& event, double now, const Board& board);
    void End(const Board& board);

    bool IsLive() const { return live_; }

private:
    void Draw(const Board& board);

    bool live_ = false;
    std::string title_;
    size_t drawnLines_ = 0;
};

}  // namespace demo

#endif
