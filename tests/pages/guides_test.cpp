// The guides show the programs that examples_test runs, character for character.

#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <set>
#include <vector>

#include "page.h"

namespace {

namespace fs = std::filesystem;
using gaktest::CodeBlock;
using gaktest::ReadFile;

TEST(DaemonGuide, ShowsTheExample)
{
    EXPECT_EQ(CodeBlock(ReadFile("docs/daemon-guide.md"), "## The program", "cpp"), ReadFile("examples/daemon.cpp"));
}

TEST(WorkerGuide, ShowsTheExample)
{
    EXPECT_EQ(CodeBlock(ReadFile("docs/worker-guide.md"), "## The program", "c"), ReadFile("examples/worker.c"));
}

// Every match of the first group.
std::set<std::string> Matches(const std::string& text, const std::string& pattern)
{
    const std::regex expression(pattern);
    std::set<std::string> found;
    for (std::sregex_iterator match(text.begin(), text.end(), expression), end; match != end; ++match) {
        found.insert((*match)[1]);
    }
    return found;
}

TEST(Pages, LinksLeadSomewhere)
{
    size_t links = 0;
    std::vector<std::string> names{"README.md", "CONTRIBUTING.md", "CHANGELOG.md", "tests/README.md",
                                   "tests/fuzz/README.md"};
    for (const fs::directory_entry& entry : fs::directory_iterator(fs::path(GAKPPC_SOURCE_DIR) / "docs")) {
        if (entry.path().extension() == ".md") {
            names.push_back("docs/" + entry.path().filename().string());
        }
    }
    for (const std::string& page : names) {
        const fs::path folder = (fs::path(GAKPPC_SOURCE_DIR) / page).parent_path();
        for (const std::string& target : Matches(ReadFile(page), R"(\]\(([^)#:\s]+)(#[^)\s]*)?\))")) {
            EXPECT_TRUE(fs::exists(folder / target)) << page << " leads to " << target;
            ++links;
        }
    }
    EXPECT_GT(links, 20u);
}

TEST(Contributing, NamesEveryPreset)
{
    const std::string presets = ReadFile("CMakePresets.json");
    const std::string page = ReadFile("CONTRIBUTING.md");
    const std::string configure = presets.substr(0, presets.find("\"buildPresets\""));
    const std::set<std::string> names = Matches(configure, R"re("name": "([^"]+)")re");
    EXPECT_GT(names.size(), 5u);
    for (const std::string& name : names) {
        if (name != "base") {
            EXPECT_TRUE(std::regex_search(page, std::regex("preset " + name + "\\b"))) << name;
        }
    }
}

TEST(Contributing, NamesEveryScript)
{
    const std::string page = ReadFile("CONTRIBUTING.md");
    for (const fs::directory_entry& script : fs::directory_iterator(fs::path(GAKPPC_SOURCE_DIR) / "scripts")) {
        EXPECT_NE(page.find("`scripts/" + script.path().filename().string()), std::string::npos) << script;
    }
}

TEST(Readme, NamesEveryFolder)
{
    const std::string page = ReadFile("README.md");
    for (const fs::directory_entry& entry : fs::directory_iterator(GAKPPC_SOURCE_DIR)) {
        const std::string name = entry.path().filename().string();
        if (entry.is_directory() && name.front() != '.' && name != "build") {
            EXPECT_TRUE(std::regex_search(page, std::regex("\n\\| \\[?`" + name + "[`/]"))) << name;
        }
    }
}

TEST(TestsPage, NamesEveryFolder)
{
    const std::string page = ReadFile("tests/README.md");
    for (const fs::directory_entry& entry : fs::directory_iterator(fs::path(GAKPPC_SOURCE_DIR) / "tests")) {
        if (entry.is_directory()) {
            const std::string name = entry.path().filename().string();
            EXPECT_TRUE(std::regex_search(page, std::regex("\n\\| `" + name + "[`/]"))) << name;
        }
    }
}

}  // namespace
