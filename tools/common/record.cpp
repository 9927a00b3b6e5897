#include "record.h"

#include <fmt/color.h>
#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "statuses.h"

namespace tools {
namespace {

const char* EventName(RecordKind kind, bool wellFormed)
{
    switch (kind) {
        case RecordKind::kOpen:
            return "open";
        case RecordKind::kClose:
            return "close";
        default:
            return wellFormed ? "message" : "malformed";
    }
}

bool HasBytes(const Record& record)
{
    return record.kind == RecordKind::kFrame || record.kind == RecordKind::kFragment;
}

std::string ShowJson(const Record& record, const Decoded& decoded, bool hex)
{
    Json json;
    json["time"] = UtcTime(record.time);
    json["event"] = EventName(record.kind, decoded.problem.empty());
    json["connection"] = record.connection;
    json["pid"] = record.peer.pid;
    json["uid"] = record.peer.uid;
    if (HasBytes(record)) {
        json["direction"] = record.direction == Direction::kToDaemon ? "to_daemon" : "to_worker";
        json["length"] = record.wireLength;
        if (decoded.message.has_value()) {
            json["claimed_pid"] = decoded.message->sub_proc_pid();
            json["message"] = ToJson(*decoded.message);
        }
        if (!decoded.problem.empty()) {
            json["problem"] = decoded.problem;
        }
        if (decoded.isCut) {
            json["cut"] = true;
        }
        if (record.sendStatus.has_value()) {
            json["not_sent"] = StatusLabel(*record.sendStatus);
        }
        if (hex) {
            json["hex"] = ToHex(record.bytes);
        }
    }
    return JsonLine(json);
}

// What the message says about its sender, where the kernel says otherwise.
std::string ClaimedPid(const Record& record, const qel::PPCMessage& message)
{
    const bool differs =
        record.direction == Direction::kToDaemon && message.sub_proc_pid() != static_cast<uint32_t>(record.peer.pid);
    return differs && record.peer.pid != 0 ? fmt::format(" (claims pid {})", message.sub_proc_pid()) : "";
}

// What is wrong with a record that has a message.
std::string Marks(const Record& record, const Decoded& decoded, bool coloured)
{
    const auto style = coloured ? fg(fmt::terminal_color::red) : fmt::text_style();
    std::string text;
    if (decoded.isCut) {
        text += fmt::format(style, " CUT ({} of {} bytes)", record.bytes.size(), record.wireLength);
    }
    if (record.sendStatus.has_value()) {
        text += fmt::format(style, " NOT SENT ({})", StatusLabel(*record.sendStatus));
    }
    return text;
}

std::string Body(const Record& record, const Decoded& decoded, bool coloured)
{
    if (!HasBytes(record)) {
        return EventName(record.kind, true);
    }
    std::string text;
    if (decoded.message.has_value()) {
        const auto style = coloured ? fmt::emphasis::bold : fmt::text_style();
        text = fmt::format("{}{}{} {}", fmt::format(style, "{}", TypeName(decoded.message->type())),
                           ClaimedPid(record, *decoded.message), Marks(record, decoded, coloured),
                           JsonText(ToJson(*decoded.message)));
    }
    if (!decoded.problem.empty()) {
        const auto style = coloured ? fg(fmt::terminal_color::red) : fmt::text_style();
        text += (text.empty() ? "" : " ") + fmt::format(style, "MALFORMED ({})", decoded.problem);
    }
    return text;
}

std::string ShowText(const Record& record, const Decoded& decoded, const RecordStyle& style)
{
    const char* arrow = "--";
    if (HasBytes(record)) {
        arrow = record.direction == Direction::kToDaemon ? "->" : "<-";
    }
    std::string text = fmt::format("{} #{} {} pid {} uid {} {}\n", UtcTime(record.time), record.connection, arrow,
                                   record.peer.pid, record.peer.uid, Body(record, decoded, style.coloured));
    if (style.hex && HasBytes(record)) {
        text += "    " + ToHex(record.bytes) + "\n";
    }
    return text;
}

}  // namespace

Record RecordOf(StreamItem&& item)
{
    Record record;
    record.time = std::chrono::system_clock::now();
    record.kind = static_cast<RecordKind>(item.kind);
    record.wireLength = item.wireLength;
    record.bytes = std::move(item.bytes);
    return record;
}

Decoded DecodeRecord(const Record& record)
{
    if (!HasBytes(record)) {
        return {};
    }
    StreamItem item;
    item.kind = static_cast<StreamItemKind>(record.kind);
    item.wireLength = record.wireLength;
    item.bytes = record.bytes;
    Decoded decoded = DecodeItem(item);
    if (item.IsTruncated() && record.known.has_value()) {
        qel::PPCMessage message = decoded.message.value_or(qel::PPCMessage());
        message.MergeFrom(*record.known);
        decoded = {message, "", true};
    }
    return decoded;
}

std::string Show(const Record& record, const RecordStyle& style, bool* malformed)
{
    const Decoded decoded = DecodeRecord(record);
    if (malformed != nullptr) {
        *malformed = !decoded.problem.empty();
    }
    return style.json ? ShowJson(record, decoded, style.hex) : ShowText(record, decoded, style);
}

}  // namespace tools
