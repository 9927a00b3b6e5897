// gakppctl doctor: whether a user can connect to the daemon, and what keeps it from it.

#include <fmt/color.h>
#include <fmt/format.h>
#include <unistd.h>

#include <memory>
#include <nlohmann/json.hpp>

#include "common/message.h"
#include "doctor/diagnosis.h"
#include "subcommands.h"

namespace tools {
namespace {

struct Options {
    std::string user;
    bool all = false;
    bool json = false;
};

const char* Name(Severity severity)
{
    switch (severity) {
        case Severity::kOk:
            return "ok";
        case Severity::kUnknown:
            return "unknown";
        case Severity::kNote:
            return "note";
        default:
            return "fault";
    }
}

fmt::text_style StyleOf(Severity severity)
{
    if (!OutputIsColoured() || severity == Severity::kNote || severity == Severity::kUnknown) {
        return {};
    }
    return fg(severity == Severity::kOk ? fmt::terminal_color::green : fmt::terminal_color::red);
}

std::string TextLine(const char* label, const std::string& text)
{
    return text.empty() ? "" : fmt::format("        {}: {}\n", label, text);
}

std::string ShowText(const Finding& finding)
{
    return fmt::format("{} {}: {}\n{}{}", fmt::format(StyleOf(finding.severity), "{:<7}", Name(finding.severity)),
                       finding.check, finding.text, TextLine("repair, as root", finding.repair),
                       TextLine("advice", finding.advice));
}

Json OrNull(const std::string& text)
{
    return text.empty() ? Json() : Json(text);
}

std::string ShowJson(const Finding& finding)
{
    Json line;
    line["severity"] = Name(finding.severity);
    line["check"] = finding.check;
    line["text"] = finding.text;
    line["repair"] = OrNull(finding.repair);
    line["advice"] = OrNull(finding.advice);
    return JsonLine(line);
}

// The connection comes first, whatever became of it.
std::string Show(const Diagnosis& diagnosis, const Options& options)
{
    std::string text;
    for (size_t i = 0; i < diagnosis.findings.size(); ++i) {
        const Finding& finding = diagnosis.findings[i];
        if (i == 0 || options.all || finding.severity == Severity::kNote || finding.severity == Severity::kFault) {
            text += options.json ? ShowJson(finding) : ShowText(finding);
        }
    }
    return text;
}

Facts GatherFactsFor(const std::string& name)
{
    if (name.empty()) {
        return GatherFacts(CallerIdentity(), true);
    }
    const Identity user = IdentityOfUser(name);
    if (user.uid == geteuid()) {
        return GatherFacts(CallerIdentity(), true);
    }
    if (geteuid() != 0) {
        throw ExitError(kExitUsage, "only root can find out what another user gets");
    }
    return GatherFacts(user, false);
}

int Run(const Options& options)
{
    const Diagnosis diagnosis = Diagnose(GatherFactsFor(options.user));
    Print(Show(diagnosis, options));
    if (diagnosis.HasFault()) {
        return kExitFailed;
    }
    return diagnosis.daemonServes ? kExitOk : kExitNoDaemon;
}

}  // namespace

Subcommand AddDoctor(CLI::App& program)
{
    CLI::App* app = program.add_subcommand(
        "doctor",
        "Say whether a user can connect to the daemon, what prevents it, and how that is repaired\n\n"
        "The connection is closed at once: the daemon sees a session that ends before its first message (SOCKET_CLOSE "
        "of device 4). Nothing is changed. What could not be read is called unknown. A repair is printed only when it "
        "is known to repair that fault and to harm nothing that works. Exit status: 0 the user connects and there is "
        "no fault, 1 faults, 3 no fault, but no daemon listens");
    auto options = std::make_shared<Options>();
    app->add_option("--user", options->user, "Answer for this user; needs root (default: who runs the doctor)")
        ->check(NotEmpty())
        ->type_name("NAME");
    app->add_flag("--all", options->all, "Print also what is as it should be and what is unknown");
    app->add_flag("--json", options->json, "Print one JSON object per line");
    AddStandardOptions(*app,
                       "  $ gakppctl doctor\n"
                       "  # gakppctl doctor --user KrovaUser\n"
                       "  $ gakppctl doctor --all --json",
                       {kExitNoDaemon});
    return {app, [options] { return Run(*options); }};
}

}  // namespace tools
