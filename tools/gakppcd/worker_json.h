#ifndef GAKPPC_WORKER_JSON_H
#define GAKPPC_WORKER_JSON_H

#include "common/message.h"
#include "workers.h"

namespace tools {

// Adds what an event tells of a worker.
void AddWorker(Json& line, const Worker& worker);

// All that the table knows of it.
Json ToJson(const Worker& worker);

}  // namespace tools

#endif
