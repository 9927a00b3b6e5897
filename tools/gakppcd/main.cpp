// gakppcd: a daemon for worker processes, to watch and to drive by hand.

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "common/cli.h"
#include "common/control_path.h"
#include "common/output.h"
#include "daemon.h"

namespace tools {
namespace {

// Log lines of the library would be written across the table.
void RedirectLog(const DaemonOptions& options)
{
    const bool acrossTable = !options.json && OutputIsTerminal() && isatty(STDERR_FILENO) == 1;
    if (options.log.empty() && !acrossTable) {
        return;
    }
    const char* const path = options.log.empty() ? "/dev/null" : options.log.c_str();
    const int log = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (log == -1 || dup2(log, STDERR_FILENO) == -1) {
        throw ExitError(kExitFailed, fmt::format("{}: {}", path, strerror(errno)));
    }
    close(log);
}

int Run(const DaemonOptions& options)
{
    RedirectLog(options);
    signal(SIGTTIN, SIG_IGN);  // in the background of a shell reading commands fails instead of stopping this process
    return Daemon(options).Run();
}

void AddOptions(CLI::App& app, DaemonOptions& options, std::vector<std::string>& spawn)
{
    app.add_option("--spawn", spawn, "Start N workers (1) for this device and of this process type; repeatable")
        ->type_name("DEVICE:TYPE[:N]")
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    app.add_option("--worker-program", options.workerProgram, "What is started (the gakppctl next to this program)")
        ->check(NotEmpty())
        ->type_name("FILE");
    app.add_flag("--auto-custom", options.autoCustom,
                 "Start the custom process as soon as a worker asks for it, without waiting for start-custom");
    app.add_flag("--replace", options.replace, "Replace the socket even when another daemon listens there");
    AddSeconds(app, "--grace", options.grace, "Time for the workers to shut down when this daemon ends (3)");
    AddSeconds(app, "--for", options.duration, "End after this time");
    app.add_flag("--json", options.json, "Print one JSON object per line");
    app.add_option("--write", options.capture,
                   "Write what the connections carry to a pcap file, for gakppctl decode, replay and Wireshark")
        ->check(NotEmpty())
        ->type_name("FILE");
    app.add_option("--control", options.control,
                   fmt::format("Listen here for the orders of gakppctl {}", kDefaultControlPathHelp))
        ->type_name("PATH")
        ->check(CLI::Validator([](const std::string& path) { return path.empty() ? "is empty" : std::string(); }, ""));
    app.add_option("--log", options.log,
                   "Append log lines to this file (default: standard error; nowhere when that is the table's terminal)")
        ->check(NotEmpty())
        ->type_name("FILE");
}

// CLI11 reports what a callback throws as wrong usage.
void ReadSpawn(const std::vector<std::string>& texts, DaemonOptions& options)
{
    for (const std::string& text : texts) {
        try {
            options.spawn.push_back(ParseSpawn(text));
        } catch (const std::invalid_argument& error) {
            throw CLI::ValidationError("--spawn", error.what());
        }
    }
}

}  // namespace
}  // namespace tools

// NOLINTNEXTLINE(bugprone-exception-escape): only the lack of memory, which ends the program
int main(int argc, char** argv)
{
    using namespace tools;
    CLI::App app(
        "Serves the workers' socket. Shows the workers in a table on a terminal, as lines in a pipe. Ends in order on "
        "SIGINT, SIGTERM and SIGHUP, at once when a second one comes, and with status 1 when its lines or JSON objects "
        "cannot be written any more: when nobody reads them, or the disk is full.",
        "gakppcd");
    DaemonOptions options;
    options.workerProgram = DefaultWorkerProgram();
    std::vector<std::string> spawn;
    AddOptions(app, options, spawn);
    app.callback([&] { ReadSpawn(spawn, options); });
    AddStandardOptions(app,
                       std::string("  $ gakppcd --spawn 0:COMPUTE --spawn 1:ZOLT:2 --auto-custom\n"
                                   "  $ echo 'shutdown all' | gakppcd --json --for 10\n\n"
                                   "Commands on standard input:\n") +
                           kCommandHelp,
                       {}, OnSignal::kDone);
    return RunProgram(app, {{&app, [&options] { return Run(options); }, false}}, argc, argv);
}
