#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "config/Config.h"
#include "platform/Bytes.h"

// The JSON control messages, both ways. A control datagram is the kind byte 0x01 and one JSON
// object in UTF-8; every object names its type in "t". The server writes compact JSON with keys in
// field order; readers do not depend on the order.
namespace parlavox::wire {

// What a message is, as its "t" names it. From clients: hi, join, ping, bye; from the server:
// config, welcome, pong, rejoin, error, roster.
enum class MessageType { hi, join, ping, bye, config, welcome, pong, rejoin, error, roster };

// Every type with its name on the wire: the one list the encoders, the decoders and the pages'
// constants are made from.
inline constexpr std::array<std::pair<MessageType, std::string_view>, 10> kMessageTypes{{
    {MessageType::hi, "hi"},
    {MessageType::join, "join"},
    {MessageType::ping, "ping"},
    {MessageType::bye, "bye"},
    {MessageType::config, "config"},
    {MessageType::welcome, "welcome"},
    {MessageType::pong, "pong"},
    {MessageType::rejoin, "rejoin"},
    {MessageType::error, "error"},
    {MessageType::roster, "roster"},
}};

// Any thread. The name of `type` in "t", and back; a name of no type is nothing.
std::string_view nameOf(MessageType type);
std::optional<MessageType> messageTypeNamed(std::string_view name);

// From a client: "hi", "join" (name, role), "ping", "bye". Other keys are ignored.
struct Incoming {
  MessageType t = MessageType::hi;
  std::optional<std::string> name;  // null and absent alike
  std::optional<std::string> role;
  bool operator==(const Incoming&) const = default;
};

// From the server, in reply to "hi": the show's channels in mask-bit order, its roles and its
// name (which a station keeps its listening settings under; absent from older servers).
struct ConfigMsg {
  std::vector<std::string> channels;
  std::vector<Role> roles;
  std::string show;
  bool operator==(const ConfigMsg&) const = default;
};

// From the server, in reply to a successful "join".
struct WelcomeMsg {
  std::uint16_t id = 0;
  std::string role;
  std::uint32_t talkMask = 0;
  std::uint32_t listenMask = 0;
  bool operator==(const WelcomeMsg&) const = default;
};

// From the server: "pong", "rejoin", or "error" with a reason.
struct SimpleMsg {
  MessageType t = MessageType::pong;
  std::optional<std::string> reason;  // left out of the JSON when absent, never null
  bool operator==(const SimpleMsg&) const = default;
};

struct RosterUser {
  std::uint16_t id = 0;
  std::string name;
  std::string role;
  bool operator==(const RosterUser&) const = default;
};

// From the server to every joined client: who is on the intercom, in ascending order of id.
struct RosterMsg {
  std::vector<RosterUser> users;
  bool operator==(const RosterMsg&) const = default;
};

using ServerMessage = std::variant<ConfigMsg, WelcomeMsg, SimpleMsg, RosterMsg>;

// Any thread. Whole control datagrams: the kind byte, then the message as compact JSON. Empty when
// the message cannot be encoded (a string that is not valid UTF-8).
std::string encodeControl(const Incoming& message);
std::string encodeControl(const ConfigMsg& message);
std::string encodeControl(const WelcomeMsg& message);
std::string encodeControl(const SimpleMsg& message);
std::string encodeControl(const RosterMsg& message);

// Any thread. A control datagram carrying `json` as it is.
std::string controlDatagram(std::string_view json);

// Any thread. The control payload (a datagram less its kind byte) as the message it holds, or
// nothing when it is not one (a "t" that names no type included). Untrusted input: nesting is
// bounded, nothing throws, text that is not valid UTF-8 is refused.
std::optional<Incoming> decodeIncoming(Bytes payload);
std::optional<ServerMessage> decodeServerMessage(Bytes payload);

}  // namespace parlavox::wire
