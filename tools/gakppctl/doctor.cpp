// gakppctl doctor: what keeps the daemon and its workers from finding each other on this machine.

#include <fmt/color.h>
#include <fmt/format.h>

#include <memory>
#include <nlohmann/json.hpp>

#include "checks.h"
#include "common/message.h"
#include "subcommands.h"

namespace tools {
namespace {

struct Options {
    bool all = false;
    bool json = false;
};

const char* Name(Severity severity)
{
    switch (severity) {
        case Severity::kOk:
            return "ok";
        case Severity::kNote:
            return "note";
        default:
            return "fault";
    }
}

fmt::text_style StyleOf(Severity severity)
{
    if (!OutputIsColoured() || severity == Severity::kNote) {
        return {};
    }
    return fg(severity == Severity::kOk ? fmt::terminal_color::green : fmt::terminal_color::red);
}

std::string Show(const Finding& finding, bool json)
{
    if (!json) {
        const std::string repair = finding.repair.empty() ? "" : fmt::format("       repair: {}\n", finding.repair);
        return fmt::format("{} {}: {}\n{}", fmt::format(StyleOf(finding.severity), "{:<5}", Name(finding.severity)),
                           finding.check, finding.text, repair);
    }
    Json line;
    line["severity"] = Name(finding.severity);
    line["check"] = finding.check;
    line["text"] = finding.text;
    line["repair"] = finding.repair.empty() ? Json() : Json(finding.repair);
    return JsonLine(line);
}

int Run(const Options& options)
{
    const Diagnosis diagnosis = Diagnose();
    std::string text;
    for (const Finding& finding : diagnosis.findings) {
        if (options.all || finding.severity == Severity::kFault) {
            text += Show(finding, options.json);
        }
    }
    if (text.empty() && !options.json) {
        text = diagnosis.daemonRuns ? "no faults; a daemon runs\n" : "no faults; no daemon runs\n";
    }
    Print(text);
    if (diagnosis.HasFault()) {
        return kExitFailed;
    }
    return diagnosis.daemonRuns ? kExitOk : kExitNoDaemon;
}

}  // namespace

Subcommand AddDoctor(CLI::App& program)
{
    CLI::App* app = program.add_subcommand(
        "doctor",
        "Find what keeps the daemon and its workers from finding each other, and say how it is repaired. Exit status: "
        "0 no fault and a daemon runs, 1 faults, 3 no fault but no daemon");
    auto options = std::make_shared<Options>();
    app->add_flag("--all", options->all, "Print also what is well and what is merely worth knowing");
    app->add_flag("--json", options->json, "Print one JSON object per line");
    AddStandardOptions(*app,
                       "  $ gakppctl doctor\n"
                       "  $ gakppctl doctor --all --json");
    return {app, [options] { return Run(*options); }};
}

}  // namespace tools
