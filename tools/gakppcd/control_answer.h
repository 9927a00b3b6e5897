#ifndef GAKPPC_CONTROL_ANSWER_H
#define GAKPPC_CONTROL_ANSWER_H

#include <optional>
#include <string>
#include <vector>

#include "workers.h"

namespace tools {

// The lines, without their newlines, that answer orders (docs/schema/control_answer.json).

// An order that cannot be carried out.
std::string RefusalText(const std::string& reason);

// One that has been carried out; it was about these workers.
std::string AnswerText(const WorkerTable& workers, const std::vector<WorkerTable::Key>& keys);

// An order to shut down that waits for its end: nothing as long as one of these workers is there, and a refusal when
// one has gone without acknowledging it. A worker that the table has forgotten is left out.
std::optional<std::string> ShutdownAnswerText(const WorkerTable& workers, const std::vector<WorkerTable::Key>& keys);

}  // namespace tools

#endif
