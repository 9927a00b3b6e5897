#include "record_filter.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <functional>
#include <stdexcept>
#include <string>

#include "common/message.h"

namespace tools {
namespace {

using Numbers = std::vector<uint32_t>;

bool Agrees(const Numbers& wanted, uint32_t number)
{
    return wanted.empty() || std::find(wanted.begin(), wanted.end(), number) != wanted.end();
}

uint32_t ParseNumber(const std::string& text)
{
    uint32_t number = 0;
    const char* const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, number);
    if (result.ec != std::errc() || result.ptr != end) {
        throw std::invalid_argument(fmt::format("{} is not a number from 0 to {}", text, UINT32_MAX));
    }
    return number;
}

// Each use of the option takes one value, or several with commas between them.
void AddList(CLI::App& app, const std::string& name, const std::string& valueName, const std::string& help,
             Numbers& numbers, uint32_t (*parse)(const std::string&))
{
    const auto store = [name, &numbers, parse](const std::vector<std::string>& texts) {
        for (const std::string& text : texts) {
            try {
                numbers.push_back(parse(text));
            } catch (const std::invalid_argument& error) {
                throw CLI::ValidationError(name, error.what());
            }
        }
    };
    app.add_option_function<std::vector<std::string>>(name, store, help)
        ->allow_extra_args(false)
        ->delimiter(',')
        ->type_name(valueName);
}

}  // namespace

bool RecordFilter::Accepts(const Record& record) const
{
    const bool isFrame = record.kind == RecordKind::kFrame || record.kind == RecordKind::kFragment;
    const bool fromWorker = !isFrame || record.direction == Direction::kToDaemon;
    const bool isWorkersPid = pids.empty() || (fromWorker && Agrees(pids, static_cast<uint32_t>(record.peer.pid)));
    if (devices.empty() && types.empty() && messages.empty() && isWorkersPid) {
        return true;
    }
    const Decoded decoded = DecodeRecord(record);
    if (!decoded.message.has_value()) {
        return false;
    }
    const qel::PPCMessage& message = *decoded.message;
    return Agrees(devices, fromWorker ? message.src_id() : message.dest_id()) &&
           Agrees(types, static_cast<uint32_t>(message.proc_type())) &&
           Agrees(messages, static_cast<uint32_t>(message.type())) &&
           (isWorkersPid || Agrees(pids, message.sub_proc_pid()));
}

void AddFilterOptions(CLI::App& app, RecordFilter& filter, const std::string& pidOption)
{
    const auto parseType = [](const std::string& text) { return static_cast<uint32_t>(ParseProcess(text)); };
    const auto parseMessage = [](const std::string& text) { return static_cast<uint32_t>(ParseType(text)); };
    AddList(app, "--device", "N", "Only messages from or to this device's workers; repeatable, as the next three",
            filter.devices, ParseNumber);
    AddList(app, "--type", "TYPE", "Only messages with this process type: ZOLT, COMPUTE, CUSTOM_COMPUTE or a number",
            filter.types, parseType);
    AddList(app, pidOption, "PID",
            "Only what concerns this worker process, the one that is connected or is named in the message; the other "
            "filters hide what cannot be decoded, and the begin and end of connections",
            filter.pids, ParseNumber);
    AddList(app, "--message", "TYPE",
            "Only messages of this type: START_RSP, SHUTDOWN_RSP, HEARTBEAT, NOTIFY_VEXOINFO, ABNORMAL, SHUTDOWN, "
            "SOCKET_CLOSE or a number",
            filter.messages, parseMessage);
}

}  // namespace tools
