#include "relay/ControlMessages.h"

#include <exception>
#include <nlohmann/json.hpp>
#include <string_view>
#include <utility>

#include "config/JsonScan.h"
#include "config/Protocol.h"

namespace parlavox {
namespace {

using Json = nlohmann::json;
using OrderedJson = nlohmann::ordered_json;

// A client message is one flat object; 32 levels leave room for any extra keys a client adds.
constexpr std::size_t maxNesting = 32;

// Reads an optional string member: absent or null leaves `out` empty; any other type fails.
bool readOptionalString(const Json& object, std::string_view key, std::optional<std::string>& out) {
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

OrderedJson roleJson(const Role& role) {
  OrderedJson json = OrderedJson::object();
  json["name"] = role.name;
  json["talk"] = role.talk;
  json["listen"] = role.listen;
  return json;
}

// Encoding throws only for strings that are not valid UTF-8 (type_error 316) or when memory runs
// out; either way the caller gets nothing to send.
template <typename Build>
std::string datagram(Build&& build) {
  try {
    const OrderedJson message = std::forward<Build>(build)();
    std::string out(1, static_cast<char>(protocol::kindControl));
    out += message.dump();
    return out;
  } catch (const std::exception&) {
    return {};
  }
}

}  // namespace

// Duplicate keys: the last occurrence wins, as nlohmann's parser keeps it; {"t":"hi","t":5} is
// therefore refused for its non-string "t".
std::optional<Incoming> decodeIncoming(Bytes payload) {
  const std::string_view text(reinterpret_cast<const char*>(payload.data()), payload.size());
  if (scanJson(text, maxNesting)) {
    return std::nullopt;
  }
  try {
    // Without exceptions: malformed text (invalid UTF-8 included) yields a discarded value.
    const Json document = Json::parse(text, nullptr, /*allow_exceptions=*/false);
    if (!document.is_object()) {
      return std::nullopt;
    }
    const auto t = document.find("t");
    if (t == document.end() || !t->is_string()) {
      return std::nullopt;
    }
    Incoming incoming{t->get_ref<const std::string&>(), std::nullopt, std::nullopt};
    if (!readOptionalString(document, "name", incoming.name) ||
        !readOptionalString(document, "role", incoming.role)) {
      return std::nullopt;
    }
    return incoming;
  } catch (const std::exception&) {
    return std::nullopt;  // out of memory: drop the datagram like any other bad one
  }
}

std::string encodeControl(const ConfigMsg& message) {
  return datagram([&] {
    OrderedJson json = OrderedJson::object();
    json["t"] = "config";
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
    OrderedJson json = OrderedJson::object();
    json["t"] = "welcome";
    json["id"] = message.id;
    json["role"] = message.role;
    json["talkMask"] = message.talkMask;
    json["listenMask"] = message.listenMask;
    return json;
  });
}

std::string encodeControl(const SimpleMsg& message) {
  return datagram([&] {
    OrderedJson json = OrderedJson::object();
    json["t"] = message.t;
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
    OrderedJson json = OrderedJson::object();
    json["t"] = "roster";
    json["users"] = std::move(users);
    return json;
  });
}

}  // namespace parlavox
