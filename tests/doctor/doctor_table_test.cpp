// What gakppctl doctor says on each machine of the table, to each of the users, and what becomes of the machine when
// its repairs are executed.

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "scenarios.h"

namespace gaktest {
namespace {

using Json = nlohmann::ordered_json;

std::string Trimmed(const std::string& text)
{
    const size_t first = text.find_first_not_of(' ');
    return first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(' ') + 1 - first);
}

std::vector<std::string> Split(const std::string& text, const std::string& separator)
{
    std::vector<std::string> parts;
    size_t start = 0;
    for (size_t end = 0; end != std::string::npos; start = end + separator.size()) {
        end = text.find(separator, start);
        parts.push_back(Trimmed(text.substr(start, end == std::string::npos ? end : end - start)));
    }
    return parts;
}

// One cell of the table.
struct Cell {
    std::string viewpoint;
    std::string verdict;
    std::vector<std::string> repairs;
    std::string after;
};

std::vector<Cell> CellsOf(const Scenario& scenario)
{
    std::vector<Cell> cells;
    std::istringstream lines(scenario.verdicts);
    for (std::string line; std::getline(lines, line);) {
        const std::vector<std::string> beforeAndAfter = Split(line, " => ");
        const std::vector<std::string> parts = Split(beforeAndAfter.front(), "|");
        std::istringstream viewpoints(parts.at(0));
        for (std::string viewpoint; viewpoints >> viewpoint;) {
            cells.push_back({viewpoint,
                             parts.at(1),
                             {parts.begin() + 2, parts.end()},
                             beforeAndAfter.size() > 1 ? beforeAndAfter[1] : ""});
        }
    }
    return cells;
}

// Those that print any.
std::map<std::vector<std::string>, std::vector<Cell>> ByRepairs(const std::vector<Cell>& cells)
{
    std::map<std::vector<std::string>, std::vector<Cell>> groups;
    for (const Cell& cell : cells) {
        if (!cell.repairs.empty()) {
            groups[cell.repairs].push_back(cell);
        }
    }
    return groups;
}

const User& UserNamed(const std::string& name)
{
    for (const User* user : {&kRoot, &kKrova, &kMember, &kOutsider}) {
        if (name == user->name) {
            return *user;
        }
    }
    throw std::runtime_error("no user " + name);
}

struct Report {
    std::string verdict;
    std::vector<std::string> repairs;
    std::vector<Json> findings;
    std::string output;

    // Whether the fault that this finding speaks of is still there.
    bool Has(const Json& finding) const
    {
        return std::any_of(findings.begin(), findings.end(),
                           [&finding](const Json& one) { return one["text"] == finding["text"]; });
    }
};

Report ReportOf(const Outcome& outcome)
{
    Report report{std::to_string(outcome.status.code), {}, {}, outcome.out + outcome.err};
    std::istringstream lines(outcome.out);
    for (std::string line; std::getline(lines, line);) {
        const Json finding = Json::parse(line);
        if (finding["severity"] != "ok") {
            report.verdict += " " + finding["severity"].get<std::string>() + ":" + finding["check"].get<std::string>();
        }
        if (!finding["repair"].is_null()) {
            report.repairs.push_back(finding["repair"]);
        }
        report.findings.push_back(finding);
    }
    return report;
}

Report RunDoctor(const Machine& machine, const std::string& viewpoint)
{
    const std::vector<std::string> users = Split(viewpoint, ":");
    std::vector<std::string> arguments{"--all", "--json"};
    if (users.size() > 1) {
        arguments.insert(arguments.end(), {"--user", users[1]});
    }
    return ReportOf(machine.RunDoctor(UserNamed(users[0]), arguments));
}

std::string Expanded(std::string text, pid_t daemon)
{
    const std::pair<std::string, std::string> names[] = {
        {"$HOME", kHome}, {"$DIR", kDir}, {"$SOCK", kSock}, {"$SAVED", kSavedSock}, {"$PID", std::to_string(daemon)}};
    for (const auto& [name, value] : names) {
        for (size_t at = text.find(name); at != std::string::npos; at = text.find(name, at + value.size())) {
            text.replace(at, name.size(), value);
        }
    }
    return text;
}

std::vector<std::string> Expanded(std::vector<std::string> texts, pid_t daemon)
{
    std::transform(texts.begin(), texts.end(), texts.begin(),
                   [daemon](const std::string& text) { return Expanded(text, daemon); });
    return texts;
}

// The words of a command, without what joins them.
std::set<std::string> WordsOf(const std::string& command)
{
    std::string text = command;
    std::replace(text.begin(), text.end(), ',', ' ');
    std::istringstream words(text);
    return {std::istream_iterator<std::string>(words), {}};
}

// What has changed is named in the command.
void ExpectOnlyNamedChanges(const std::map<std::string, std::string>& before,
                            const std::map<std::string, std::string>& after, const std::string& command)
{
    const std::set<std::string> named = WordsOf(command);
    for (const auto* side : {&before, &after}) {
        for (const auto& [key, state] : *side) {
            const bool same = before.count(key) > 0 && after.count(key) > 0 && before.at(key) == after.at(key);
            EXPECT_TRUE(same || named.count(key) > 0) << key << ": " << state << "\nhas changed by: " << command;
        }
    }
}

void Execute(const std::string& command, const Machine& machine)
{
    const auto before = Machine::Snapshot();
    const std::vector<std::string> admitted = Machine::WhoMayConnect();
    const Outcome outcome = RunTool("sh", {"-c", "PATH=/usr/sbin:/usr/bin:/sbin:/bin; " + command});
    EXPECT_TRUE(outcome.status.ExitedWith(0)) << command << "\n" << outcome.out << outcome.err;
    ExpectOnlyNamedChanges(before, Machine::Snapshot(), command);
    EXPECT_TRUE(machine.SessionStands()) << "a worker has lost its session by: " << command;
    const std::vector<std::string> admittedNow = Machine::WhoMayConnect();
    for (const std::string& name : admitted) {
        EXPECT_EQ(std::count(admittedNow.begin(), admittedNow.end(), name), 1) << name << " is kept out by " << command;
    }
}

class DoctorTable : public testing::TestWithParam<Scenario> {
protected:
    void SetUp() override
    {
        const std::string reason = ReasonToSkip();
        if (!reason.empty()) {
            GTEST_SKIP() << reason;
        }
    }
};

// Executes what the first of the cells prints, which the others print as well.
void ExpectRepairsHelp(const Scenario& scenario, const std::vector<Cell>& cells)
{
    Machine machine;
    scenario.make(machine);
    const Report before = RunDoctor(machine, cells.front().viewpoint);
    for (const Json& finding : before.findings) {
        if (finding["repair"].is_null()) {
            continue;
        }
        Execute(finding["repair"], machine);
        const Report now = RunDoctor(machine, cells.front().viewpoint);
        EXPECT_FALSE(now.Has(finding)) << finding << "\nis still there after its repair:\n" << now.output;
    }
    for (const Cell& cell : cells) {
        const Report after = RunDoctor(machine, cell.viewpoint);
        EXPECT_EQ(after.verdict, cell.after) << cell.viewpoint << ", after the repairs:\n" << after.output;
    }
}

void ExpectVerdict(const Machine& machine, const Cell& cell)
{
    const auto before = Machine::Snapshot();
    const Report report = RunDoctor(machine, cell.viewpoint);
    EXPECT_EQ(report.verdict, cell.verdict) << report.output;
    EXPECT_EQ(report.repairs, Expanded(cell.repairs, machine.DaemonPid())) << report.output;
    EXPECT_EQ(Machine::Snapshot(), before) << "the doctor has changed something";
    EXPECT_EQ(report.output.find("restart"), std::string::npos) << report.output;
}

// Whether a finding says so in one of its texts.
bool Says(const Report& report, const std::string& part)
{
    return std::any_of(report.findings.begin(), report.findings.end(), [&part](const Json& finding) {
        const std::string advice = finding["advice"].is_null() ? "" : finding["advice"];
        return finding["text"].get<std::string>().find(part) != std::string::npos ||
               advice.find(part) != std::string::npos;
    });
}

void ExpectTexts(const Machine& machine, const char* texts)
{
    std::istringstream lines(texts);
    for (std::string line; std::getline(lines, line);) {
        const std::vector<std::string> parts = Split(line, "|");
        const Report report = RunDoctor(machine, parts.at(0));
        EXPECT_TRUE(Says(report, Expanded(parts.at(1), machine.DaemonPid()))) << line << "\n" << report.output;
    }
}

TEST_P(DoctorTable, VerdictIsRightAndRepairsRepair)
{
    const Scenario& scenario = GetParam();
    const std::vector<Cell> cells = CellsOf(scenario);
    EXPECT_EQ(cells.size(), 7U) << "root and three users, and root for each of them";
    try {
        {
            Machine machine;
            scenario.make(machine);
            for (const Cell& cell : cells) {
                SCOPED_TRACE(cell.viewpoint);
                ExpectVerdict(machine, cell);
            }
            ExpectTexts(machine, scenario.texts);
        }
        for (const auto& [repairs, sameRepairs] : ByRepairs(cells)) {
            SCOPED_TRACE(sameRepairs.front().viewpoint + ", repairs");
            ExpectRepairsHelp(scenario, sameRepairs);
        }
    } catch (const NotPossible& reason) {
        GTEST_SKIP() << reason.what();
    }
}

std::string NameOf(const testing::TestParamInfo<Scenario>& scenario)
{
    return scenario.param.name;
}

INSTANTIATE_TEST_SUITE_P(Healthy, DoctorTable, testing::ValuesIn(kHealthyScenarios), NameOf);
INSTANTIATE_TEST_SUITE_P(Faulty, DoctorTable, testing::ValuesIn(kFaultyScenarios), NameOf);

}  // namespace
}  // namespace gaktest
