#ifndef GAKPPC_SCREEN_H
#define GAKPPC_SCREEN_H

#include <cstddef>
#include <ostream>
#include <string>
#include <vector>

#include "tool.h"

namespace gaktest {

inline void PrintTo(const TerminalSize& size, std::ostream* out)
{
    *out << size.columns << "x" << size.rows;
}

// What a terminal shows after it has been sent a text: the few escape codes that gakppcd uses. Other codes are an
// error.
class Screen {
public:
    Screen(const std::string& text, TerminalSize size);

    // The rows, without trailing spaces. Colours are left out.
    const std::vector<std::string>& rows() const { return rows_; }
    std::string Text() const;
    bool Shows(const std::string& text) const { return Text().find(text) != std::string::npos; }

    // Lines that went on in the next row, because they were longer than the screen is wide.
    size_t Wraps() const { return wraps_; }
    // Rows that left the screen at its top.
    size_t Scrolls() const { return scrolls_; }
    const std::string& UnknownCode() const { return unknownCode_; }

private:
    void Put(char c);
    void NextRow();
    size_t Escape(const std::string& text, size_t at);
    void Control(char kind, const std::string& numbers);

    size_t height_;
    size_t width_;
    std::vector<std::string> rows_;
    size_t row_ = 0;
    size_t column_ = 0;
    size_t savedRow_ = 0;
    size_t savedColumn_ = 0;
    size_t wraps_ = 0;
    size_t scrolls_ = 0;
    std::string unknownCode_;
};

}  // namespace gaktest

#endif
