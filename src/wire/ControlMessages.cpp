#include "wire/ControlMessages.h"

#include <exception>
#include <limits>
#include <nlohmann/json.hpp>
#include <utility>

#include "config/JsonScan.h"
#include "wire/Protocol.h"

namespace parlavox::wire {
namespace {

using Json = nlohmann::json;
using OrderedJson = nlohmann::ordered_json;

// A control message is one flat object (a "config" three levels deep); 32 levels leave room for
// any extra keys a sender adds.
constexpr std::size_t kMaxNesting = 32;

// Encoding throws only for strings that are not valid UTF-8 (type_error 316) or when memory runs
// out; either way the caller gets nothing to send.
template <typename Build>
std::string datagram(Build&& build) {
  try {
    return controlDatagram(std::forward<Build>(build)().dump());
  } catch (const std::exception&) {
    return {};
  }
}

OrderedJson roleJson(const Role& role) {
  OrderedJson json = OrderedJson::object();
  json["name"] = role.name;
  json["talk"] = role.talk;
  json["listen"] = role.listen;
  return json;
}

// The parsed object of a payload, or a discarded value.
Json parseObject(Bytes payload) {
  const std::string_view text(reinterpret_cast<const char*>(payload.data()), payload.size());
  if (scanJson(text, kMaxNesting)) {
    return Json(Json::value_t::discarded);
  }
  // Without exceptions: malformed text (invalid UTF-8 included) yields a discarded value.
  Json document = Json::parse(text, nullptr, /*allow_exceptions=*/false);
  return document.is_object() ? document : Json(Json::value_t::discarded);
}

// Members: an absent (or, where optional, null) member and one of the wrong type are told apart,
// since a wrong type refuses the whole message.
bool readString(const Json& object, const char* key, std::string& out) {
  const auto it = object.find(key);
  if (it == object.end() || !it->is_string()) {
    return false;
  }
  out = it->get_ref<const std::string&>();
  return true;
}

bool readOptionalString(const Json& object, const char* key, std::optional<std::string>& out) {
  const auto it = object.find(key);
  if (it == object.end() || it->is_null()) {
    return true;
  }
  if (!it->is_string()) {
    return false;
  }
  out = it->get_ref<const std::string&>();
  return true;
}

// "t", naming one of the types.
bool readType(const Json& object, MessageType& out) {
  std::string name;
  if (!readString(object, "t", name)) {
    return false;
  }
  const auto type = messageTypeNamed(name);
  out = type.value_or(out);
  return type.has_value();
}

template <typename Unsigned>
bool readUnsigned(const Json& object, const char* key, Unsigned& out) {
  const auto it = object.find(key);
  if (it == object.end() || !it->is_number_unsigned() ||
      it->get<std::uint64_t>() > std::numeric_limits<Unsigned>::max()) {
    return false;
  }
  out = static_cast<Unsigned>(it->get<std::uint64_t>());
  return true;
}

bool readStrings(const Json& object, const char* key, std::vector<std::string>& out) {
  const auto it = object.find(key);
  if (it == object.end() || !it->is_array()) {
    return false;
  }
  for (const Json& item : *it) {
    if (!item.is_string()) {
      return false;
    }
    out.push_back(item.get_ref<const std::string&>());
  }
  return true;
}

// An array of objects under `key`, each read by `read` into an Entry.
template <typename Entry, typename Read>
bool readObjects(const Json& object, const char* key, std::vector<Entry>& out, Read read) {
  const auto it = object.find(key);
  if (it == object.end() || !it->is_array()) {
    return false;
  }
  for (const Json& item : *it) {
    Entry entry;
    if (!item.is_object() || !read(item, entry)) {
      return false;
    }
    out.push_back(std::move(entry));
  }
  return true;
}

// Read leniently, since the list is how clients of the original protocol are told apart: anything
// but an array, and any item that names no feature, stands for nothing.
Features readFeatures(const Json& object) {
  Features features;
  const auto it = object.find("features");
  if (it == object.end() || !it->is_array()) {
    return features;
  }
  for (const Json& item : *it) {
    if (!item.is_string()) {
      continue;
    }
    for (const auto& [feature, name] : kFeatures) {
      if (item.get_ref<const std::string&>() == name) {
        features.add(feature);
      }
    }
  }
  return features;
}

template <typename Unsigned>
bool readOptionalUnsigned(const Json& object, const char* key, std::optional<Unsigned>& out) {
  if (!object.contains(key)) {
    return true;
  }
  Unsigned value = 0;
  if (!readUnsigned(object, key, value)) {
    return false;
  }
  out = value;
  return true;
}

std::optional<ConfigMsg> readConfig(const Json& object) {
  ConfigMsg message;
  if (!readStrings(object, "channels", message.channels) ||
      !readObjects(object, "roles", message.roles, [](const Json& item, Role& role) {
        return readString(item, "name", role.name) && readStrings(item, "talk", role.talk) &&
               readStrings(item, "listen", role.listen);
      })) {
    return std::nullopt;
  }
  return message;
}

std::optional<WelcomeMsg> readWelcome(const Json& object) {
  WelcomeMsg message;
  if (!readUnsigned(object, "id", message.id) || !readString(object, "role", message.role) ||
      !readUnsigned(object, "talkMask", message.talkMask) ||
      !readUnsigned(object, "listenMask", message.listenMask)) {
    return std::nullopt;
  }
  return message;
}

std::optional<RosterMsg> readRoster(const Json& object) {
  RosterMsg message;
  if (!readObjects(object, "users", message.users, [](const Json& item, RosterUser& user) {
        return readUnsigned(item, "id", user.id) && readString(item, "name", user.name) &&
               readString(item, "role", user.role);
      })) {
    return std::nullopt;
  }
  return message;
}

std::optional<CallMsg> readCall(const Json& object) {
  CallMsg message;
  if (!readUnsigned(object, "id", message.id) || !readUnsigned(object, "mask", message.mask)) {
    return std::nullopt;
  }
  return message;
}

std::optional<AnnounceMsg> readAnnounce(const Json& object) {
  AnnounceMsg message;
  if (!readString(object, "text", message.text) || !readUnsigned(object, "mask", message.mask)) {
    return std::nullopt;
  }
  return message;
}

// A message's object, its type first.
OrderedJson typed(MessageType type) {
  OrderedJson json = OrderedJson::object();
  json["t"] = nameOf(type);
  return json;
}

}  // namespace

std::string_view nameOf(MessageType type) {
  for (const auto& [each, name] : kMessageTypes) {
    if (each == type) {
      return name;
    }
  }
  return {};
}

std::optional<MessageType> messageTypeNamed(std::string_view name) {
  for (const auto& [type, each] : kMessageTypes) {
    if (each == name) {
      return type;
    }
  }
  return std::nullopt;
}

MessageType typeOf(const ServerMessage& message) {
  struct Type {
    MessageType operator()(const ConfigMsg&) const { return MessageType::config; }
    MessageType operator()(const WelcomeMsg&) const { return MessageType::welcome; }
    MessageType operator()(const SimpleMsg& simple) const { return simple.t; }
    MessageType operator()(const RosterMsg&) const { return MessageType::roster; }
    MessageType operator()(const CallMsg&) const { return MessageType::call; }
    MessageType operator()(const AnnounceMsg&) const { return MessageType::announce; }
  };
  return std::visit(Type{}, message);
}

std::string controlDatagram(std::string_view json) {
  std::string out;
  out.reserve(1 + json.size());
  out.push_back(static_cast<char>(kControlKind));
  out.append(json);
  return out;
}

std::string encodeControl(const Incoming& message) {
  return datagram([&] {
    OrderedJson json = typed(message.t);
    if (message.name) {
      json["name"] = *message.name;
    }
    if (message.role) {
      json["role"] = *message.role;
    }
    if (message.features.bits != 0) {
      json["features"] = OrderedJson::array();
      for (const auto& [feature, name] : kFeatures) {
        if (message.features.has(feature)) {
          json["features"].push_back(name);
        }
      }
    }
    if (message.mask) {
      json["mask"] = *message.mask;
    }
    return json;
  });
}

std::string encodeControl(const ConfigMsg& message) {
  return datagram([&] {
    OrderedJson json = typed(MessageType::config);
    json["channels"] = message.channels;
    json["roles"] = OrderedJson::array();
    for (const Role& role : message.roles) {
      json["roles"].push_back(roleJson(role));
    }
    return json;
  });
}

std::string encodeControl(const WelcomeMsg& message) {
  return datagram([&] {
    OrderedJson json = typed(MessageType::welcome);
    json["id"] = message.id;
    json["role"] = message.role;
    json["talkMask"] = message.talkMask;
    json["listenMask"] = message.listenMask;
    return json;
  });
}

std::string encodeControl(const SimpleMsg& message) {
  return datagram([&] {
    OrderedJson json = typed(message.t);
    if (message.reason) {
      json["reason"] = *message.reason;
    }
    return json;
  });
}

std::string encodeControl(const RosterMsg& message) {
  return datagram([&] {
    OrderedJson users = OrderedJson::array();
    for (const RosterUser& user : message.users) {
      OrderedJson entry = OrderedJson::object();
      entry["id"] = user.id;
      entry["name"] = user.name;
      entry["role"] = user.role;
      users.push_back(std::move(entry));
    }
    OrderedJson json = typed(MessageType::roster);
    json["users"] = std::move(users);
    return json;
  });
}

std::string encodeControl(const CallMsg& message) {
  return datagram([&] {
    OrderedJson json = typed(MessageType::call);
    json["id"] = message.id;
    json["mask"] = message.mask;
    return json;
  });
}

std::string encodeControl(const AnnounceMsg& message) {
  return datagram([&] {
    OrderedJson json = typed(MessageType::announce);
    json["text"] = message.text;
    json["mask"] = message.mask;
    return json;
  });
}

// Duplicate keys: the last occurrence wins, as nlohmann's parser keeps it; {"t":"hi","t":5} is
// therefore refused for its non-string "t".
std::optional<Incoming> decodeIncoming(Bytes payload) {
  try {
    const Json object = parseObject(payload);
    Incoming message;
    if (object.is_discarded() || !readType(object, message.t) ||
        !readOptionalString(object, "name", message.name) ||
        !readOptionalString(object, "role", message.role)) {
      return std::nullopt;
    }
    // Only a call's mask is read: any other message keeps ignoring a "mask" it may carry.
    if (message.t == MessageType::call && !readOptionalUnsigned(object, "mask", message.mask)) {
      return std::nullopt;
    }
    message.features = readFeatures(object);
    return message;
  } catch (const std::exception&) {
    return std::nullopt;  // out of memory: drop the datagram like any other bad one
  }
}

std::optional<ServerMessage> decodeServerMessage(Bytes payload) {
  try {
    const Json object = parseObject(payload);
    MessageType type = MessageType::pong;
    if (object.is_discarded() || !readType(object, type)) {
      return std::nullopt;
    }
    switch (type) {
      case MessageType::config:
        return readConfig(object);
      case MessageType::welcome:
        return readWelcome(object);
      case MessageType::roster:
        return readRoster(object);
      case MessageType::call:
        return readCall(object);
      case MessageType::announce:
        return readAnnounce(object);
      default:
        break;
    }
    SimpleMsg message{type, std::nullopt};
    if (!readOptionalString(object, "reason", message.reason)) {
      return std::nullopt;
    }
    return message;
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

}  // namespace parlavox::wire
