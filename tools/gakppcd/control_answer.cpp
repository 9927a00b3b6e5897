#include "control_answer.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <unistd.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "common/message.h"
#include "worker_json.h"

namespace tools {
namespace {

using Rows = std::vector<const Worker*>;

Rows Find(const WorkerTable& workers, const std::vector<WorkerTable::Key>& keys)
{
    Rows rows;
    for (const WorkerTable::Key& key : keys) {
        const auto found = workers.All().find(key);
        if (found != workers.All().end()) {
            rows.push_back(&found->second);
        }
    }
    return rows;
}

}  // namespace

std::string RefusalText(const std::string& reason)
{
    Json answer;
    answer["ok"] = false;
    answer["error"] = reason;
    return JsonText(answer);
}

std::string AnswerText(const WorkerTable& workers, const std::vector<WorkerTable::Key>& keys)
{
    Json answer;
    answer["ok"] = true;
    answer["daemon"] = getpid();
    answer["workers"] = Json::array();
    for (const Worker* worker : Find(workers, keys)) {
        answer["workers"].push_back(ToJson(*worker));
    }
    return JsonText(answer);
}

std::optional<std::string> ShutdownAnswerText(const WorkerTable& workers, const std::vector<WorkerTable::Key>& keys)
{
    std::vector<std::string> failures;
    for (const Worker* worker : Find(workers, keys)) {
        if (!worker->HasEnded()) {
            return std::nullopt;
        }
        if (worker->state != WorkerState::kStopped) {
            failures.push_back(fmt::format("device {} pid {} has not acknowledged its shutdown: {}", worker->device,
                                           worker->pid, Name(worker->state)));
        }
    }
    return failures.empty() ? AnswerText(workers, keys) : RefusalText(fmt::format("{}", fmt::join(failures, "; ")));
}

}  // namespace tools
