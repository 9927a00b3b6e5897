// gakppctl: works on the control messages between the daemon and its workers by hand. One file for each subcommand.

#include "subcommands.h"

// NOLINTNEXTLINE(bugprone-exception-escape): only the lack of memory, which ends the program
int main(int argc, char** argv)
{
    using namespace tools;
    CLI::App app("Works on the control messages between the process-manager daemon and its workers.", "gakppctl");
    const std::vector<Subcommand> subcommands{AddWorker(app), AddSend(app),    AddTap(app),      AddWatch(app),
                                              AddReplay(app), AddDecode(app),  AddStatus(app),   AddList(app),
                                              AddDoctor(app), AddWorkers(app), AddShutdown(app), AddStartCustom(app),
                                              AddStop(app)};
    app.add_subcommand("help", "Print the help of a command");
    app.require_subcommand(1);
    AddStandardOptions(app,
                       "  $ gakppctl worker --device 0 --type COMPUTE\n"
                       "  $ gakppctl list\n"
                       "  $ gakppctl tap --json\n"
                       "  $ gakppctl doctor\n"
                       "  $ gakppctl help tap",
                       {kExitNoDaemon, kExitTimeLimit});
    return RunProgram(app, subcommands, argc, argv);
}
