#include "message.h"

#include <fmt/format.h>
#include <gakppc/ppc.h>
#include <google/protobuf/stubs/logging.h>
#include <google/protobuf/util/json_util.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <stdexcept>

namespace tools {
namespace {

using qel::PPCMessage;

constexpr size_t kInnerLengthSize = 4;
// The encoded fields of a message that are numbers: a byte each, and up to 5 or, where it may be negative, 10.
constexpr size_t kLongestNumbers = 6 + 4 * 5 + 2 * 10;

// The inner length has the host's byte order, little-endian on every host of the system.
uint32_t DecodeLittleEndian(const uint8_t* bytes)
{
    return static_cast<uint32_t>(bytes[3]) << 24 | static_cast<uint32_t>(bytes[2]) << 16 |
           static_cast<uint32_t>(bytes[1]) << 8 | static_cast<uint32_t>(bytes[0]);
}

std::string UpperCase(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::toupper(c); });
    return text;
}

std::optional<int> ParseNumber(const std::string& text)
{
    int number = 0;
    const char* end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, number);
    return result.ec == std::errc() && result.ptr == end ? std::optional<int>(number) : std::nullopt;
}

// The text with U+FFFD for what is no UTF-8.
std::string WellFormed(const std::string& text)
{
    const std::string quoted = Json(text).dump(-1, ' ', true, Json::error_handler_t::replace);
    return Json::parse(quoted).get<std::string>();
}

std::string DescribeCut(const StreamItem& item)
{
    return fmt::format("only {} of {} bytes were kept", item.bytes.size(), item.wireLength);
}

std::string DescribeFragment(const StreamItem& item)
{
    if (item.wireLength < kFrameHeaderSize) {
        return fmt::format("length field of {} byte(s)", item.wireLength);
    }
    if (item.bytes.size() < kFrameHeaderSize) {
        return DescribeCut(item);
    }
    const uint32_t length = DecodeBigEndian(item.bytes.data());
    if (length > PPC_MAX_MSG_LEN) {
        return fmt::format("no frame: a length of {} is above the limit of {}", length, PPC_MAX_MSG_LEN);
    }
    return fmt::format("no frame: {} byte(s) where a length of {} was announced", item.wireLength - kFrameHeaderSize,
                       length);
}

// The library sends the numbers of a message before its names, so a beginning of this size has them all.
Decoded DecodeCut(const StreamItem& item)
{
    constexpr size_t kHeaders = kFrameHeaderSize + kInnerLengthSize;
    if (item.bytes.size() < kHeaders + kLongestNumbers ||
        DecodeLittleEndian(item.bytes.data() + kFrameHeaderSize) != item.wireLength - kHeaders) {
        return {std::nullopt, DescribeCut(item)};
    }
    PPCMessage message;
    const google::protobuf::LogSilencer silencer;
    // False, because it ends inside a field.
    static_cast<void>(
        message.ParsePartialFromArray(item.bytes.data() + kHeaders, static_cast<int>(item.bytes.size() - kHeaders)));
    return {message, "", true};
}

}  // namespace

std::string JsonText(const Json& json)
{
    return json.dump(-1, ' ', true, Json::error_handler_t::replace);
}

std::string JsonLine(const Json& json)
{
    return JsonText(json) + "\n";
}

std::string TypeName(int type)
{
    return PPCMessage::MsgType_IsValid(type) ? PPCMessage::MsgType_Name(static_cast<PPCMessage::MsgType>(type))
                                             : std::to_string(type);
}

std::string ProcessName(int type)
{
    return PPCMessage::ProcessType_IsValid(type)
               ? PPCMessage::ProcessType_Name(static_cast<PPCMessage::ProcessType>(type))
               : std::to_string(type);
}

PPCMessage::MsgType ParseType(const std::string& text)
{
    PPCMessage::MsgType type = PPCMessage::START_RSP;
    if (PPCMessage::MsgType_Parse(UpperCase(text), &type)) {
        return type;
    }
    if (const auto number = ParseNumber(text)) {
        return static_cast<PPCMessage::MsgType>(*number);
    }
    throw std::invalid_argument(
        fmt::format("{} is no message type (START_RSP, SHUTDOWN_RSP, HEARTBEAT, "
                    "NOTIFY_VEXOINFO, ABNORMAL, SHUTDOWN, SOCKET_CLOSE or a number)",
                    text));
}

PPCMessage::ProcessType ParseProcess(const std::string& text)
{
    PPCMessage::ProcessType type = PPCMessage::ZOLT;
    if (PPCMessage::ProcessType_Parse(UpperCase(text), &type)) {
        return type;
    }
    if (const auto number = ParseNumber(text)) {
        return static_cast<PPCMessage::ProcessType>(*number);
    }
    throw std::invalid_argument(fmt::format("{} is no process type (ZOLT, COMPUTE, CUSTOM_COMPUTE or a number)", text));
}

Json ToJson(const PPCMessage& message)
{
    google::protobuf::util::JsonPrintOptions options;
    options.always_print_primitive_fields = true;
    options.preserve_proto_field_names = true;
    const google::protobuf::LogSilencer silencer;  // a damaged string is reported as such
    std::string text;
    if (!google::protobuf::util::MessageToJsonString(message, &text, options).ok()) {
        return Json::object();
    }
    const Json json = Json::parse(text, nullptr, false);
    return json.is_discarded() ? Json::parse(WellFormed(text)) : json;
}

PPCMessage FromJson(const std::string& text)
{
    PPCMessage message;
    google::protobuf::util::JsonParseOptions options;
    options.case_insensitive_enum_parsing = true;
    const auto status = google::protobuf::util::JsonStringToMessage(text, &message, options);
    if (!status.ok()) {
        throw std::invalid_argument("no message in JSON: " + status.ToString());
    }
    return message;
}

Bytes FrameOfMessage(const PPCMessage& message)
{
    const auto length = static_cast<uint32_t>(message.ByteSizeLong());
    Bytes payload(kInnerLengthSize + length);
    for (size_t i = 0; i < kInnerLengthSize; ++i) {
        payload[i] = static_cast<uint8_t>(length >> (8 * i));
    }
    message.SerializePartialToArray(payload.data() + kInnerLengthSize, static_cast<int>(length));
    return FrameOf(payload);
}

Decoded DecodeItem(const StreamItem& item)
{
    if (item.kind == StreamItemKind::kFragment) {
        return {std::nullopt, DescribeFragment(item)};
    }
    if (item.IsTruncated()) {
        return DecodeCut(item);
    }
    const size_t payload = item.bytes.size() - kFrameHeaderSize;
    if (payload == 0) {
        return {std::nullopt, "frame of length 0"};
    }
    if (payload < kInnerLengthSize) {
        return {std::nullopt, fmt::format("payload of {} byte(s) has no room for its inner length", payload)};
    }
    const uint8_t* inner = item.bytes.data() + kFrameHeaderSize;
    const uint32_t length = DecodeLittleEndian(inner);
    if (length != payload - kInnerLengthSize) {
        return {std::nullopt,
                fmt::format("inner length {} where {} byte(s) follow it", length, payload - kInnerLengthSize)};
    }
    PPCMessage message;
    const google::protobuf::LogSilencer silencer;
    const bool good = message.ParseFromArray(inner + kInnerLengthSize, static_cast<int>(length));
    return {message, good ? "" : "the encoding is damaged; this is what could be decoded"};
}

}  // namespace tools
