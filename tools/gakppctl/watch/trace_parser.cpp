#include "trace_parser.h"

#include <algorithm>
#include <charconv>
#include <nlohmann/json.hpp>
#include <string_view>
#include <utility>

#include "trace_program.h"

namespace tools {
namespace {

constexpr size_t kLongestLine = size_t{64} * 1024;
constexpr size_t kMostUnfinished = 1024;

// The words of a line, one after the other. Each call is true when the next word is what it asks for.
class Words {
public:
    explicit Words(std::string_view text) : text_(text) {}

    template <typename Number>
    bool Read(Number& number, int base = 10)
    {
        const std::string_view word = Next();
        const auto result = std::from_chars(word.data(), word.data() + word.size(), number, base);
        return !word.empty() && result.ec == std::errc() && result.ptr == word.data() + word.size();
    }

    // "\x00\x2a", also nothing.
    bool ReadBytes(Bytes& bytes)
    {
        const std::string_view word = Next();
        for (size_t at = 0; at < word.size(); at += 4) {
            uint8_t byte = 0;
            const char* const end = word.data() + std::min(at + 4, word.size());
            const bool isEscaped = word.compare(at, 2, "\\x") == 0 && word.size() - at >= 4;
            if (!isEscaped || std::from_chars(word.data() + at + 2, end, byte, 16).ptr != end) {
                return false;
            }
            bytes.push_back(byte);
        }
        return true;
    }

    bool IsAtEnd() const { return text_.empty(); }

private:
    std::string_view Next()
    {
        const size_t space = std::min(text_.find(' '), text_.size());
        const std::string_view word = text_.substr(0, space);
        text_.remove_prefix(std::min(space + 1, text_.size()));
        return word;
    }

    std::string_view text_;
};

std::optional<uint64_t> NumberIn(const nlohmann::json& object, const char* name)
{
    const auto found = object.find(name);
    const bool isNumber = found != object.end() && found->is_number_unsigned();
    return isNumber ? std::optional<uint64_t>(found->get<uint64_t>()) : std::nullopt;
}

uint64_t Wanted(const TraceEvent& event)
{
    return std::min<uint64_t>(event.length, kTraceLimit);
}

}  // namespace

void TraceParser::Feed(const char* data, size_t count)
{
    const char* const end = data + count;
    while (data != end) {
        const char* const newline = std::find(data, end, '\n');
        if (!skipping_) {
            line_.append(data, newline);
        }
        skipping_ = line_.size() > kLongestLine;
        if (newline == end) {
            line_.resize(std::min(line_.size(), kLongestLine + 1));
            return;
        }
        data = newline + 1;
        OnLine(std::exchange(line_, {}));
        skipping_ = false;
    }
}

void TraceParser::Finish()
{
    while (!unfinished_.empty()) {
        GiveOut(unfinished_.begin()->first);
    }
}

void TraceParser::OnLine(const std::string& line)
{
    if (line.empty()) {
        return;
    }
    const auto json = line.size() > kLongestLine ? nlohmann::json() : nlohmann::json::parse(line, nullptr, false);
    const auto type = json.is_object() ? json.value("type", nlohmann::json()) : nlohmann::json();
    const auto data = json.is_object() ? json.value("data", nlohmann::json()) : nlohmann::json();
    bool isUnderstood = type == "attached_probes";
    if (type == "printf" && data.is_string()) {
        isUnderstood = OnReport(data.get<std::string>());
    } else if (type == "lost_events" && data.is_object()) {
        isUnderstood = OnLost(NumberIn(data, "events"));
    } else if (type == "map" && data.is_object()) {
        isUnderstood = !data.contains(kTraceTotal) || OnTotal(NumberIn(data, kTraceTotal));
    }
    rejected_ += isUnderstood ? 0 : 1;
}

bool TraceParser::OnLost(std::optional<uint64_t> lost)
{
    Finish();  // pieces may be among them
    TraceEvent event;
    event.kind = TraceEvent::Kind::kLost;
    event.lost = lost.value_or(0);
    sink_(std::move(event));
    return lost.has_value();
}

// The tracer's own counter: of the last reports that were lost, nothing else tells.
bool TraceParser::OnTotal(std::optional<uint64_t> total)
{
    TraceEvent event;
    event.kind = TraceEvent::Kind::kTotal;
    event.lost = total.value_or(0) - std::min(total.value_or(0), reported_);
    sink_(std::move(event));
    return total.has_value();
}

bool TraceParser::OnReport(const std::string& text)
{
    const bool isLine = text.size() >= 2 && text.back() == '\n';
    const std::string rest = isLine && text.size() > 2 ? text.substr(2, text.size() - 3) : "";
    switch (isLine && (text[1] == ' ' || text[1] == '\n') ? text.front() : '\0') {
        case kTraceAttached:
            sink_(TraceEvent());
            return true;
        case kTraceOpened:
            return OnConnection(rest, TraceEvent::Kind::kOpened);
        case kTraceEnded:
            return OnConnection(rest, TraceEvent::Kind::kEnded);
        case kTraceSent:
            return OnMessage(rest, TraceEvent::Kind::kSent);
        case kTraceReceived:
            return OnMessage(rest, TraceEvent::Kind::kReceived);
        case kTracePieceOfPayload:
            return OnPiece(rest);
        default:
            return false;
    }
}

bool TraceParser::OnConnection(const std::string& text, TraceEvent::Kind kind)
{
    Words words(text);
    TraceEvent event;
    event.kind = kind;
    if (!words.Read(event.time, 16) || !words.Read(event.fd) || !words.Read(event.peer) || !words.IsAtEnd()) {
        return false;
    }
    ++reported_;
    sink_(std::move(event));
    return true;
}

bool TraceParser::OnMessage(const std::string& text, TraceEvent::Kind kind)
{
    Words words(text);
    TraceEvent event;
    event.kind = kind;
    uint64_t thread = 0;
    uint32_t source = 0, destination = 0, pid = 0;
    int32_t type = 0, processType = 0;
    if (!words.Read(thread) || !words.Read(event.time, 16) || !words.Read(event.fd) || !words.Read(event.status) ||
        !words.Read(event.length) || !words.Read(source) || !words.Read(destination) || !words.Read(pid) ||
        !words.Read(type) || !words.Read(processType) || !words.IsAtEnd()) {
        return false;
    }
    ++reported_;
    event.message.set_src_id(source);
    event.message.set_dest_id(destination);
    event.message.set_sub_proc_pid(pid);
    event.message.set_type(static_cast<qel::PPCMessage::MsgType>(type));
    event.message.set_proc_type(static_cast<qel::PPCMessage::ProcessType>(processType));
    GiveOut(thread);  // what is missing of its last one was lost
    if (unfinished_.size() >= kMostUnfinished) {
        GiveOut(unfinished_.begin()->first);
    }
    TraceEvent& kept = unfinished_[thread] = std::move(event);
    if (Wanted(kept) == 0) {
        GiveOut(thread);
    }
    return true;
}

bool TraceParser::OnPiece(const std::string& text)
{
    Words words(text);
    uint64_t thread = 0, time = 0, offset = 0;
    Bytes piece;
    if (!words.Read(thread) || !words.Read(time, 16) || !words.Read(offset) || !words.ReadBytes(piece) ||
        !words.IsAtEnd()) {
        return false;
    }
    const auto found = unfinished_.find(thread);
    if (found == unfinished_.end() || found->second.time != time || found->second.payload.size() != offset ||
        offset + piece.size() > Wanted(found->second)) {
        return true;  // what it belongs to was lost
    }
    Bytes& payload = found->second.payload;
    payload.insert(payload.end(), piece.begin(), piece.end());
    if (payload.size() == Wanted(found->second)) {
        GiveOut(thread);
    }
    return true;
}

void TraceParser::GiveOut(uint64_t thread)
{
    auto found = unfinished_.extract(thread);
    if (found) {
        sink_(std::move(found.mapped()));
    }
}

}  // namespace tools
