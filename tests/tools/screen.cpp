#include "screen.h"

#include <algorithm>
#include <cstdlib>

namespace gaktest {

Screen::Screen(const std::string& text, TerminalSize size) : height_(size.rows), width_(size.columns), rows_(size.rows)
{
    for (size_t at = 0; at < text.size(); ++at) {
        if (text[at] == '\033') {
            at = Escape(text, at + 1);
        } else {
            Put(text[at]);
        }
    }
    for (std::string& row : rows_) {
        row.erase(row.find_last_not_of(' ') + 1);
    }
}

std::string Screen::Text() const
{
    std::string text;
    for (const std::string& row : rows_) {
        text += row + "\n";
    }
    return text;
}

void Screen::Put(char c)
{
    if (c == '\r') {
        column_ = 0;
    } else if (c == '\n') {
        NextRow();
    } else {
        if (column_ == width_) {
            ++wraps_;
            column_ = 0;
            NextRow();
        }
        rows_[row_].resize(std::max(rows_[row_].size(), column_ + 1), ' ');
        rows_[row_][column_++] = c;
    }
}

void Screen::NextRow()
{
    if (row_ + 1 < height_) {
        ++row_;
        return;
    }
    ++scrolls_;
    rows_.erase(rows_.begin());
    rows_.emplace_back();
}

// The position of the code's last character.
size_t Screen::Escape(const std::string& text, size_t at)
{
    if (at >= text.size()) {
        return at;
    }
    if (text[at] == '[') {
        const size_t end = std::min(text.find_first_not_of("0123456789;", at + 1), text.size() - 1);
        Control(text[end], text.substr(at + 1, end - at - 1));
        return end;
    }
    if (text[at] == '7') {
        savedRow_ = row_;
        savedColumn_ = column_;
    } else if (text[at] == '8') {
        row_ = savedRow_;
        column_ = savedColumn_;
    } else {
        unknownCode_ = text[at];
    }
    return at;
}

void Screen::Control(char kind, const std::string& numbers)
{
    switch (kind) {
        case 'H': {
            const size_t second = numbers.find(';');
            row_ = std::clamp<size_t>(strtoul(numbers.c_str(), nullptr, 10), 1, height_) - 1;
            column_ = second == std::string::npos ? 0 : strtoul(numbers.c_str() + second + 1, nullptr, 10) - 1;
            break;
        }
        case 'J':
            std::fill(rows_.begin(), rows_.end(), "");
            break;
        case 'K':
            rows_[row_].resize(std::min(rows_[row_].size(), column_));
            break;
        case 'm':
            break;
        default:
            unknownCode_ = numbers + kind;
            break;
    }
}

}  // namespace gaktest
