#ifndef GAKPPC_VERBS_H
#define GAKPPC_VERBS_H

#include "common/cli.h"

// Each adds one verb to the program.
namespace tools {

Verb AddWorker(CLI::App& program);
Verb AddSend(CLI::App& program);
Verb AddTap(CLI::App& program);
Verb AddReplay(CLI::App& program);
Verb AddDecode(CLI::App& program);
Verb AddStatus(CLI::App& program);
Verb AddDoctor(CLI::App& program);

}  // namespace tools

#endif
