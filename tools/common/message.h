#ifndef GAKPPC_MESSAGE_H
#define GAKPPC_MESSAGE_H

#include <gakppc/qel_message.pb.h>

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

#include "frame_stream.h"

namespace tools {

// Objects keep the order in which their members were set.
using Json = nlohmann::ordered_json;

// Compact JSON in ASCII, so it has no control characters; JsonLine ends it with a newline.
std::string JsonText(const Json& json);
std::string JsonLine(const Json& json);

// Names and numbers of the two enumerations. Unknown numbers keep their digits, for the other way round they are
// accepted as well. Names are accepted in upper and lower case. Throws std::invalid_argument for an unknown name.
std::string TypeName(int type);
std::string ProcessName(int type);
qel::PPCMessage::MsgType ParseType(const std::string& text);
qel::PPCMessage::ProcessType ParseProcess(const std::string& text);

// The schema's JSON mapping, with the field names of the schema and all fields.
Json ToJson(const qel::PPCMessage& message);
// The inverse. Throws std::invalid_argument.
qel::PPCMessage FromJson(const std::string& text);

// The whole frame of a message.
Bytes FrameOfMessage(const qel::PPCMessage& message);

// What is in one item of a stream: a message, or the reason why there is none. Of a frame that is cut the message is
// what could be decoded of it: the fields behind the cut are missing.
struct Decoded {
    std::optional<qel::PPCMessage> message;
    std::string problem;
    bool isCut = false;
};
Decoded DecodeItem(const StreamItem& item);

}  // namespace tools

#endif
