#include "screen.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace demo {
namespace {

constexpr unsigned kNeededRows = 18;
constexpr unsigned kNeededColumns = 80;

bool CanRedraw()
{
    const char* terminal = getenv("TERM");
    winsize size{};
    return isatty(STDOUT_FILENO) != 0 && terminal != nullptr && std::string(terminal) != "dumb" &&
           ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row >= kNeededRows && size.ws_col >= kNeededColumns;
}

}  // namespace

Screen::Screen() : live_(CanRedraw()) {}

void Screen::Draw(const Board& board)
{
    if (drawnLines_ != 0) {
        printf("\033[%zuA", drawnLines_);  // up to the first line of the last drawing
    }
    const auto line = [](const std::string& text) { printf("\r%s\033[K\n", text.c_str()); };
    line(title_);
    line("");
    const std::vector<std::string> table = board.Table();
    for (const std::string& row : table) {
        line(row);
    }
    drawnLines_ = table.size() + 2;
    fflush(stdout);
}

void Screen::BeginPart(const std::string& title, const Board& board)
{
    if (live_) {
        title_ = title;
        Draw(board);
        return;
    }
    if (!title_.empty()) {
        End(board);
    }
    title_ = title;
    printf("\n%s\n", title.c_str());
    fflush(stdout);
}

void Screen::Change(const Event& event, double now, const Board& board)
{
    if (live_) {
        Draw(board);
        return;
    }
    const bool isLaterHeartbeat = event.what == "HEARTBEAT" && board.At(event.device, event.type).heartbeats > 1;
    if (!isLaterHeartbeat) {  // the table counts the others
        printf("  %5.2f s  device %u  %-15s pid %-8d %s\n", now, event.device, event.type.c_str(),
               static_cast<int>(event.pid), event.what.c_str());
        fflush(stdout);
    }
}

void Screen::End(const Board& board)
{
    if (live_) {
        title_ = "The end:";
        Draw(board);
        return;
    }
    for (const std::string& row : board.Table()) {
        printf("    %s\n", row.c_str());
    }
    fflush(stdout);
}

}  // namespace demo
