#include "config/RolesFile.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <system_error>
#include <utility>
#include <vector>

#include "config/JsonScan.h"
#include "config/Printable.h"
#include "platform/RegularFile.h"

namespace parlavox {
namespace {

using Json = nlohmann::json;

// A real roles file nests four levels deep; anything near this bound is not one.
constexpr std::size_t kMaxNesting = 64;
// A real roles file is a few kilobytes; this only bounds what an absurd one costs.
constexpr std::size_t kMaxFileSize = std::size_t{16} * 1024 * 1024;

// Decoding stops at the first failure; the message names the key or element that failed.
struct Failure {
  std::string message;
};

// The member `key` of `object`, or nullptr when absent or null: the file's rules treat both alike.
const Json* member(const Json& object, std::string_view key) {
  const auto it = object.find(key);
  if (it == object.end() || it->is_null()) {
    return nullptr;
  }
  return &*it;
}

std::optional<Failure> missing(const Json& object, std::string_view key, const std::string& where,
                               std::string_view expected) {
  const char* what = object.contains(key) ? "null" : "missing";
  return Failure{fmt::format("{}: {} (expected {})", where, what, expected)};
}

std::optional<Failure> readStringArray(const Json& value, const std::string& where,
                                       std::vector<std::string>& out) {
  if (!value.is_array()) {
    return Failure{where + ": expected an array of strings"};
  }
  out.clear();
  out.reserve(value.size());
  for (std::size_t i = 0; i < value.size(); ++i) {
    const auto& element = value[i];
    if (!element.is_string()) {
      return Failure{fmt::format("{}[{}]: expected a string", where, i)};
    }
    out.push_back(element.get_ref<const std::string&>());
  }
  return std::nullopt;
}

std::optional<Failure> readRequiredStringArray(const Json& object, std::string_view key,
                                               const std::string& where,
                                               std::vector<std::string>& out) {
  const Json* value = member(object, key);
  if (value == nullptr) {
    return missing(object, key, where, "an array of strings");
  }
  return readStringArray(*value, where, out);
}

std::optional<Failure> readRole(const Json& value, const std::string& where, Role& role) {
  if (!value.is_object()) {
    return Failure{where + ": expected an object"};
  }
  const std::string namePath = where + ".name";
  const Json* name = member(value, "name");
  if (name == nullptr) {
    return missing(value, "name", namePath, "a string");
  }
  if (!name->is_string()) {
    return Failure{namePath + ": expected a string"};
  }
  role.name = name->get_ref<const std::string&>();
  if (auto failure = readRequiredStringArray(value, "talk", where + ".talk", role.talk)) {
    return failure;
  }
  return readRequiredStringArray(value, "listen", where + ".listen", role.listen);
}

std::optional<Failure> readOscPort(const Json& value, std::uint16_t& port) {
  constexpr std::uint64_t kHighest = 65535;
  // Integers only: 47000.0 and 4.7e4 are numbers of another type. "-0" parses as a signed zero.
  if (value.is_number_unsigned() && value.get<std::uint64_t>() <= kHighest) {
    port = static_cast<std::uint16_t>(value.get<std::uint64_t>());
    return std::nullopt;
  }
  if (value.is_number_integer() && !value.is_number_unsigned() && value.get<std::int64_t>() == 0) {
    port = 0;
    return std::nullopt;
  }
  return Failure{"oscPort: expected an integer from 0 to 65535"};
}

// The optional `key` as a positive 32-bit count, left as it is when absent.
std::optional<Failure> readCount(const Json& document, const char* key, std::uint32_t& count) {
  const Json* value = member(document, key);
  if (value == nullptr) {
    return std::nullopt;
  }
  constexpr std::uint64_t kHighest = 0xFFFFFFFF;
  if (value->is_number_unsigned() && value->get<std::uint64_t>() >= 1 &&
      value->get<std::uint64_t>() <= kHighest) {
    count = static_cast<std::uint32_t>(value->get<std::uint64_t>());
    return std::nullopt;
  }
  return Failure{fmt::format("{}: expected a positive integer", key)};
}

constexpr std::string_view kCrewKeys[] = {"crewPin", "crewNetworks"};
constexpr std::size_t kShortestPin = 4;
constexpr std::size_t kLongestPin = 64;

// The crew's protection: a PIN a phone's keyboard can type, the same on every one (ASCII, no
// spaces), and the networks crew devices come from. The PIN itself is never part of a message.
std::optional<Failure> readCrewAccess(const Json& document, Config& config) {
  if (const Json* pin = member(document, "crewPin")) {
    const auto visible = [](char c) { return c > ' ' && c < '\x7F'; };
    if (!pin->is_string() || pin->get_ref<const std::string&>().size() < kShortestPin ||
        pin->get_ref<const std::string&>().size() > kLongestPin ||
        !std::ranges::all_of(pin->get_ref<const std::string&>(), visible)) {
      return Failure{
          fmt::format("crewPin: expected a string of {} to {} letters, digits or ASCII punctuation",
                      kShortestPin, kLongestPin)};
    }
    config.crewPin = pin->get_ref<const std::string&>();
  }
  const Json* networks = member(document, "crewNetworks");
  if (networks == nullptr) {
    return std::nullopt;
  }
  if (!networks->is_array() || networks->empty()) {
    return Failure{R"(crewNetworks: expected a non-empty array of networks, as "10.20.0.0/24")"};
  }
  for (std::size_t i = 0; i < networks->size(); ++i) {
    const Json& each = (*networks)[i];
    auto subnet = each.is_string() ? parseSubnet(each.get_ref<const std::string&>()) : std::nullopt;
    if (!subnet) {
      return Failure{fmt::format(
          "crewNetworks[{}]: expected a network, as \"10.20.0.0/24\" or \"fd00:20::/64\"", i)};
    }
    config.crewNetworks.push_back(std::move(*subnet));
  }
  return std::nullopt;
}

// Whether a file that failed to decode meant to protect the crew: then the built-in show, open
// to all, must not stand in for it. Text that is not even JSON is judged by its bytes.
bool guardsTheCrew(std::string_view bytes, const Json* document) {
  return std::ranges::any_of(kCrewKeys, [&](std::string_view key) {
    return document != nullptr ? document->is_object() && member(*document, key) != nullptr
                               : bytes.find(fmt::format("\"{}\"", key)) != std::string_view::npos;
  });
}

// `config` starts with the defaults of the keys that may be left out.
std::optional<Failure> readConfig(const Json& document, Config& config) {
  if (!document.is_object()) {
    return Failure{"expected a JSON object at the top level"};
  }
  if (auto failure = readCrewAccess(document, config)) {
    return failure;
  }
  if (const Json* show = member(document, "show")) {
    if (!show->is_string()) {
      return Failure{"show: expected a string"};
    }
    config.show = show->get_ref<const std::string&>();
  }
  if (auto failure = readRequiredStringArray(document, "channels", "channels", config.channels)) {
    return failure;
  }
  const Json* roles = member(document, "roles");
  if (roles == nullptr) {
    return missing(document, "roles", "roles", "an array of role objects");
  }
  if (!roles->is_array()) {
    return Failure{"roles: expected an array of role objects"};
  }
  config.roles.assign(roles->size(), Role{});
  for (std::size_t i = 0; i < roles->size(); ++i) {
    if (auto failure = readRole((*roles)[i], fmt::format("roles[{}]", i), config.roles[i])) {
      return failure;
    }
  }
  if (const Json* port = member(document, "oscPort")) {
    if (auto failure = readOscPort(*port, config.oscPort)) {
      return failure;
    }
  }
  if (auto failure = readCount(document, "peersPerHost", config.peersPerHost)) {
    return failure;
  }
  return readCount(document, "audioPerTalker", config.audioPerTalker);
}

// nlohmann's messages start with "[json.exception.parse_error.101] "; the rest is for people.
std::string withoutExceptionTag(std::string_view what) {
  if (what.starts_with("[json.exception.")) {
    if (const auto end = what.find("] "); end != std::string_view::npos) {
      what.remove_prefix(end + 2);
    }
  }
  return std::string(what);
}

// Throws nlohmann's type_error 316 for a string that is not valid UTF-8. "/" stays unescaped.
std::string quoted(const std::string& text) {
  return Json(text).dump();
}

void appendIndent(std::string& out, int level) {
  out.append(static_cast<std::size_t>(level) * 2, ' ');
}

void appendKey(std::string& out, int level, std::string_view key) {
  appendIndent(out, level);
  out += '"';
  out += key;
  out += "\" : ";
}

// The array opens after its key on the same line; elements sit one level deeper. An empty array
// is written "[]".
void appendStringArray(std::string& out, int level, const std::vector<std::string>& values) {
  if (values.empty()) {
    out += "[]";
    return;
  }
  out += "[\n";
  for (std::size_t i = 0; i < values.size(); ++i) {
    appendIndent(out, level + 1);
    out += quoted(values[i]);
    out += i + 1 < values.size() ? ",\n" : "\n";
  }
  appendIndent(out, level);
  out += ']';
}

void appendRole(std::string& out, int level, const Role& role) {
  appendIndent(out, level);
  out += "{\n";
  appendKey(out, level + 1, "name");
  out += quoted(role.name);
  out += ",\n";
  appendKey(out, level + 1, "talk");
  appendStringArray(out, level + 1, role.talk);
  out += ",\n";
  appendKey(out, level + 1, "listen");
  appendStringArray(out, level + 1, role.listen);
  out += '\n';
  appendIndent(out, level);
  out += '}';
}

std::string absolutePath(const std::string& path) {
  std::error_code error;
  auto absolute = std::filesystem::absolute(path, error);
  return error ? path : absolute.string();
}

}  // namespace

DecodedConfig decodeConfig(std::string_view bytes) {
  if (const auto problem = scanJson(bytes, kMaxNesting)) {
    return {std::nullopt,
            problem->kind == JsonScanProblem::Kind::tooDeep
                ? fmt::format("nested deeper than {} levels at byte {}", kMaxNesting,
                              problem->offset + 1)
                : fmt::format("NUL character at byte {}", problem->offset + 1),
            guardsTheCrew(bytes, nullptr)};
  }
  try {
    const auto document = Json::parse(bytes);
    Config config;
    if (auto failure = readConfig(document, config)) {
      return {std::nullopt, std::move(failure->message), guardsTheCrew(bytes, &document)};
    }
    return {std::move(config), {}, false};
  } catch (const Json::exception& e) {
    std::string message = withoutExceptionTag(e.what());
    const bool guarded = guardsTheCrew(bytes, nullptr);
    if (guarded) {
      // The parser quotes the text it stopped at, which may be the PIN.
      message = message.substr(0, message.find("; last read: "));
    }
    return {std::nullopt, std::move(message), guarded};
  }
}

std::string encodeConfig(const Config& config) {
  try {
    std::string out = "{\n";
    appendKey(out, 1, "show");
    out += quoted(config.show);
    out += ",\n";
    appendKey(out, 1, "channels");
    appendStringArray(out, 1, config.channels);
    out += ",\n";
    appendKey(out, 1, "roles");
    if (config.roles.empty()) {
      out += "[]";
    } else {
      out += "[\n";
      for (std::size_t i = 0; i < config.roles.size(); ++i) {
        appendRole(out, 2, config.roles[i]);
        out += i + 1 < config.roles.size() ? ",\n" : "\n";
      }
      out += "  ]";
    }
    out += ",\n";
    appendKey(out, 1, "oscPort");
    out += std::to_string(config.oscPort);
    // Written only when they differ, so that the built-in show's file stays as it was.
    for (const auto& [key, value, usual] :
         {std::tuple{"peersPerHost", config.peersPerHost, Config{}.peersPerHost},
          std::tuple{"audioPerTalker", config.audioPerTalker, Config{}.audioPerTalker}}) {
      if (value != usual) {
        out += ",\n";
        appendKey(out, 1, key);
        out += std::to_string(value);
      }
    }
    out += "\n}";
    return out;
  } catch (const Json::exception&) {
    return {};
  }
}

std::optional<Config> loadConfig(const std::string& path, platform::Console& console,
                                 const std::string& spareDirectory) {
  // The path comes from the command line: it is printed, but must not forge console lines.
  const std::string location = absolutePath(path);
  const std::string shown = printable(location);
  const auto fallBack = [&](std::string_view what, std::string_view error) {
    console.warning(platform::EventKind::service,
                    fmt::format("⚠️  Couldn't {} {}: {}\n    Using built-in defaults instead.",
                                what, shown, printable(error)));
    return defaultConfig();
  };
  const auto read = platform::readRegularFile(location, kMaxFileSize);
  if (!read) {
    // Something is there that cannot be read; it stays as it is.
    return fallBack("read", read.error());
  }
  if (!*read && !spareDirectory.empty()) {
    return loadConfig(spareDirectory + "/roles.json", console, {});
  }
  if (!*read) {
    // The built-in show is plain ASCII: its encoding cannot fail.
    const auto written = platform::createRegularFile(location, encodeConfig(defaultConfig()));
    if (!written) {
      return fallBack("write default roles to", written.error());
    }
    console.info(
        platform::EventKind::service,
        fmt::format("📝 Wrote default roles to {}. Edit it and restart the server to customize.",
                    shown));
    return defaultConfig();
  }
  DecodedConfig decoded = decodeConfig(**read);
  if (!decoded.config && decoded.guardsTheCrew) {
    console.error(platform::EventKind::service,
                  fmt::format("❌ Not starting: {} in {}; the crew would be left open.",
                              printable(decoded.error), shown));
    return std::nullopt;
  }
  if (!decoded.config) {
    return fallBack("read", decoded.error);
  }
  if (decoded.config->oscPort == 0) {
    // The file's rules allow 0, but a listener on 0 gets whatever port the system picks, which
    // no show-control cue could be pointed at.
    decoded.config->oscPort = defaultConfig().oscPort;
    console.warning(platform::EventKind::service,
                    fmt::format("⚠️  oscPort 0 in {} would listen on a random port; using {}",
                                shown, decoded.config->oscPort));
  }
  return std::move(*decoded.config);
}

}  // namespace parlavox
