#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "config/Config.h"
#include "platform/Bytes.h"

namespace parlavox {

// The one message clients send: a JSON object with a string "t"; "name" and "role" are strings,
// null or absent. Other keys are ignored.
struct Incoming {
  std::string t;
  std::optional<std::string> name;
  std::optional<std::string> role;
  bool operator==(const Incoming&) const = default;
};

// The control payload (the datagram less its kind byte) as an Incoming, or nothing when it is not
// one. Untrusted input: bounded nesting, no exceptions escape, invalid UTF-8 refused.
std::optional<Incoming> decodeIncoming(Bytes payload);

struct ConfigMsg {
  std::vector<std::string> channels;
  std::vector<Role> roles;
};

struct WelcomeMsg {
  std::uint16_t id = 0;
  std::string role;
  std::uint32_t talkMask = 0;
  std::uint32_t listenMask = 0;
};

struct SimpleMsg {
  std::string t;
  std::optional<std::string> reason;  // left out of the JSON when absent
};

struct RosterUser {
  std::uint16_t id = 0;
  std::string name;
  std::string role;
};

struct RosterMsg {
  std::vector<RosterUser> users;  // ascending id
};

// Whole control datagrams: the kind byte 0x01, then the message as compact JSON with keys in field
// order ("t" first). Empty when the message cannot be encoded.
std::string encodeControl(const ConfigMsg& message);
std::string encodeControl(const WelcomeMsg& message);
std::string encodeControl(const SimpleMsg& message);
std::string encodeControl(const RosterMsg& message);

}  // namespace parlavox
