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

// What a message is, as its "t" names it. From clients: hi, join, ping, bye, call; from the
// server: config, welcome, pong, rejoin, error, roster, and to clients that asked for them in their
// join, call and announce.
enum class MessageType {
  hi,
  join,
  ping,
  bye,
  config,
  welcome,
  pong,
  rejoin,
  error,
  roster,
  call,
  announce
};

// Every type with its name on the wire: the one list the encoders, the decoders and the pages'
// constants are made from.
inline constexpr std::array<std::pair<MessageType, std::string_view>, 12> kMessageTypes{{
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
    {MessageType::call, "call"},
    {MessageType::announce, "announce"},
}};

// What a client understands beyond the original protocol, as its join lists them in "features":
// "call" (call messages instead of the call chime), "text" (the words of each announcement),
// "removed" (an "error" saying why when the operator removes it, rather than silence). A client
// that lists none is sent only what the original protocol defines.
enum class Feature : std::uint8_t { call = 1U << 0U, text = 1U << 1U, removed = 1U << 2U };

inline constexpr std::array<std::pair<Feature, std::string_view>, 3> kFeatures{{
    {Feature::call, "call"},
    {Feature::text, "text"},
    {Feature::removed, "removed"},
}};

// A set of features, one bit each.
struct Features {
  std::uint8_t bits = 0;
  bool has(Feature feature) const { return (bits & static_cast<std::uint8_t>(feature)) != 0; }
  void add(Feature feature) { bits |= static_cast<std::uint8_t>(feature); }
  bool operator==(const Features&) const = default;
};

// Any thread. The name of `type` in "t", and back; a name of no type is nothing.
std::string_view nameOf(MessageType type);
std::optional<MessageType> messageTypeNamed(std::string_view name);

// From a client: "hi", "join" (name, role, features), "ping", "bye", "call" (mask). Other keys
// are ignored, and so are feature names of no feature.
struct Incoming {
  MessageType t = MessageType::hi;
  std::optional<std::string> name;  // null and absent alike
  std::optional<std::string> role;
  Features features;
  std::optional<std::uint32_t> mask;
  bool operator==(const Incoming&) const = default;

  // Any thread. The messages a client sends.
  static Incoming of(MessageType t) {
    Incoming message;
    message.t = t;
    return message;
  }
  static Incoming join(std::optional<std::string> name, std::optional<std::string> role,
                       Features features = {}) {
    Incoming message = of(MessageType::join);
    message.name = std::move(name);
    message.role = std::move(role);
    message.features = features;
    return message;
  }
  static Incoming call(std::uint32_t mask) {
    Incoming message = of(MessageType::call);
    message.mask = mask;
    return message;
  }
};

// From the server, in reply to "hi": the show's channels in mask-bit order and its roles.
struct ConfigMsg {
  std::vector<std::string> channels;
  std::vector<Role> roles;
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

// From the server to a client that understands calls: `id` (a crew member's, or the announcer's
// for show control) calls on the channels of `mask`, the receiver's share.
struct CallMsg {
  std::uint16_t id = 0;
  std::uint32_t mask = 0;
  bool operator==(const CallMsg&) const = default;
};

// From the server to a client that understands text, as an announcement starts to play: its words
// and the receiver's share of its mask.
struct AnnounceMsg {
  std::string text;
  std::uint32_t mask = 0;
  bool operator==(const AnnounceMsg&) const = default;
};

using ServerMessage =
    std::variant<ConfigMsg, WelcomeMsg, SimpleMsg, RosterMsg, CallMsg, AnnounceMsg>;

// Any thread. What `message` is.
MessageType typeOf(const ServerMessage& message);

// Any thread. Whole control datagrams: the kind byte, then the message as compact JSON. Empty when
// the message cannot be encoded (a string that is not valid UTF-8).
std::string encodeControl(const Incoming& message);
std::string encodeControl(const ConfigMsg& message);
std::string encodeControl(const WelcomeMsg& message);
std::string encodeControl(const SimpleMsg& message);
std::string encodeControl(const RosterMsg& message);
std::string encodeControl(const CallMsg& message);
std::string encodeControl(const AnnounceMsg& message);

// Any thread. A control datagram carrying `json` as it is.
std::string controlDatagram(std::string_view json);

// Any thread. The control payload (a datagram less its kind byte) as the message it holds, or
// nothing when it is not one (a "t" that names no type included). Untrusted input: nesting is
// bounded, nothing throws, text that is not valid UTF-8 is refused.
std::optional<Incoming> decodeIncoming(Bytes payload);
std::optional<ServerMessage> decodeServerMessage(Bytes payload);

}  // namespace parlavox::wire
