#ifndef GAKPPC_PAGE_H
#define GAKPPC_PAGE_H

#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <string>

// Takes pieces out of the pages in docs/, so that tests use what readers see.
namespace gaktest {

inline std::string ReadFile(const std::string& path)
{
    std::ifstream in(std::string(GAKPPC_SOURCE_DIR) + "/" + path, std::ios::binary);
    if (!in) {
        throw std::runtime_error(path + " cannot be read");
    }
    return {std::istreambuf_iterator<char>(in), {}};
}

// The first code block of the page behind the line `heading`, without its fences. `language` is what the opening fence
// names.
inline std::string CodeBlock(const std::string& page, const std::string& heading, const std::string& language = "")
{
    const size_t section = page.find("\n" + heading + "\n");
    const std::string opening = "\n```" + language + "\n";
    const size_t begin = section == std::string::npos ? section : page.find(opening, section);
    const size_t end = begin == std::string::npos ? begin : page.find("\n```\n", begin + opening.size() - 1);
    if (end == std::string::npos) {
        throw std::runtime_error("no such code block behind " + heading);
    }
    const size_t code = begin + opening.size();
    return page.substr(code, end + 1 - code);
}

}  // namespace gaktest

#endif
