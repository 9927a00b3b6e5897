#include "string_util.h"

#include <algorithm>
#include <cctype>

namespace qel {
namespace {

bool IsSpace(char c)
{
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

// An empty pattern is found at position 0 and then after each inserted copy, until that position passes the end of the
// text as it was.
void InsertCopies(std::string& s, const std::string& to)
{
    if (to.empty()) {
        return;
    }
    std::string copies;
    for (size_t at = 0; at <= s.size(); at += to.size()) {
        copies += to;
    }
    s.insert(0, copies);
}

}  // namespace

std::string& RTrim(std::string& s)
{
    s.erase(std::find_if_not(s.rbegin(), s.rend(), IsSpace).base(), s.end());
    return s;
}

std::string& LTrim(std::string& s)
{
    s.erase(s.begin(), std::find_if_not(s.begin(), s.end(), IsSpace));
    return s;
}

std::string& Trim(std::string& s)
{
    return LTrim(RTrim(s));
}

void ReplaceAllSubStrDistinct(std::string& s, const std::string& from, const std::string& to)
{
    if (from.empty()) {
        InsertCopies(s, to);
        return;
    }
    // Into another string: replacing in place would move the rest of the text at each step, and `from` or `to` may be
    // the text itself.
    std::string replaced;
    size_t copied = 0;
    for (size_t at = s.find(from); at != std::string::npos; at = s.find(from, copied)) {
        replaced.append(s, copied, at - copied).append(to);
        copied = at + from.size();
    }
    replaced.append(s, copied, std::string::npos);
    s.swap(replaced);
}

std::string RemoveEscapeChar(const std::string& in)
{
    static constexpr char kFirstEscaped = 7;
    static constexpr char kLastEscaped = 13;
    static constexpr char kLetters[] = "abtnvfr";  // for the bytes 7 to 13, in order

    std::string out;
    out.reserve(in.size());
    for (const char c : in) {
        if (c >= kFirstEscaped && c <= kLastEscaped) {
            out += '\\';
            out += kLetters[c - kFirstEscaped];
        } else {
            out += c;
        }
    }
    ReplaceAllSubStrDistinct(out, "%0a", "%%0a");
    ReplaceAllSubStrDistinct(out, "%0d", "%%0d");
    return out;
}

}  // namespace qel
