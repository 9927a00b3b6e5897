#ifndef GAKPPC_SUBCOMMANDS_H
#define GAKPPC_SUBCOMMANDS_H

#include "common/cli.h"

// Each adds one subcommand to the program.
namespace tools {

Subcommand AddWorker(CLI::App& program);
Subcommand AddSend(CLI::App& program);
Subcommand AddTap(CLI::App& program);
Subcommand AddWatch(CLI::App& program);
Subcommand AddReplay(CLI::App& program);
Subcommand AddDecode(CLI::App& program);
Subcommand AddStatus(CLI::App& program);
Subcommand AddList(CLI::App& program);
Subcommand AddDoctor(CLI::App& program);
Subcommand AddWorkers(CLI::App& program);
Subcommand AddShutdown(CLI::App& program);
Subcommand AddStartCustom(CLI::App& program);
Subcommand AddStop(CLI::App& program);

}  // namespace tools

#endif
