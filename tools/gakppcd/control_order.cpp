#include "control_order.h"

#include <fmt/format.h>

#include <algorithm>
#include <limits>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <vector>

#include "common/message.h"

namespace tools {
namespace {

struct Verb {
    const char* name;
    CommandKind kind;
    bool namesWorker;  // by "device" and "pid"
    bool mayWait;
};

constexpr Verb kVerbs[] = {
    {"workers", CommandKind::kWorkers, false, false},
    {"shutdown", CommandKind::kShutdown, true, true},
    {"shutdown-all", CommandKind::kShutdownAll, false, true},
    {"start-custom", CommandKind::kStartCustom, true, false},
    {"stop", CommandKind::kQuit, false, true},
};

Json ParseObject(const std::string& line)
{
    try {
        Json json = Json::parse(line);
        if (json.is_object()) {
            return json;
        }
    } catch (const Json::parse_error& error) {
        throw std::invalid_argument(fmt::format("the order is no JSON, from byte {} on", error.byte));
    } catch (const Json::out_of_range&) {
        throw std::invalid_argument("the order is no JSON: a number is out of range");
    }
    throw std::invalid_argument("the order is no JSON object");
}

const Verb& VerbIn(const Json& json)
{
    const auto name = json.find("order");
    if (name == json.end() || !name->is_string()) {
        throw std::invalid_argument("\"order\" is missing, or no string");
    }
    const auto* const verb = std::find_if(std::begin(kVerbs), std::end(kVerbs),
                                          [&name](const Verb& candidate) { return *name == candidate.name; });
    if (verb == std::end(kVerbs)) {
        throw std::invalid_argument(fmt::format("unknown order {}", JsonText(*name)));
    }
    return *verb;
}

void RefuseOtherMembers(const Json& json, const Verb& verb)
{
    for (const auto& [key, value] : json.items()) {
        const bool isKnown = key == "order" || (verb.namesWorker && (key == "device" || key == "pid")) ||
                             (verb.mayWait && key == "wait");
        if (!isKnown) {
            throw std::invalid_argument(fmt::format("{} has no member {}", verb.name, JsonText(key)));
        }
    }
}

uint32_t NumberIn(const Json& json, const char* key)
{
    constexpr uint64_t kHighest = std::numeric_limits<uint32_t>::max();
    const auto number = json.find(key);
    if (number == json.end() || !number->is_number_unsigned() || number->get<uint64_t>() > kHighest) {
        throw std::invalid_argument(fmt::format("\"{}\" is missing, or no integer from 0 to {}", key, kHighest));
    }
    return number->get<uint32_t>();
}

bool WaitIn(const Json& json)
{
    const auto wait = json.find("wait");
    if (wait != json.end() && !wait->is_boolean()) {
        throw std::invalid_argument("\"wait\" is neither true nor false");
    }
    return wait != json.end() && wait->get<bool>();
}

}  // namespace

ControlOrder ParseOrder(const std::string& line)
{
    const Json json = ParseObject(line);
    const Verb& verb = VerbIn(json);
    RefuseOtherMembers(json, verb);
    ControlOrder order;
    order.command.kind = verb.kind;
    order.wait = WaitIn(json);
    if (verb.namesWorker) {
        order.command.device = NumberIn(json, "device");
        order.command.pid = NumberIn(json, "pid");
    }
    return order;
}

}  // namespace tools
