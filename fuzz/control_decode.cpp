// Fuzz target: control payloads (a control datagram less its kind byte) from any client.
#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

#include "FuzzCheck.h"
#include "relay/ControlMessages.h"

// The name and signature are libFuzzer's.
extern "C" int LLVMFuzzerTestOneInput(  // NOLINT(readability-identifier-naming)
    const std::uint8_t* data, std::size_t size) {
  using parlavox::fuzz::isValidUtf8;
  using parlavox::fuzz::require;

  const auto incoming = parlavox::decodeIncoming(parlavox::Bytes(data, size));
  if (!incoming) {
    return 0;
  }
  require(isValidUtf8(incoming->t), "t is UTF-8");
  require(!incoming->name || isValidUtf8(*incoming->name), "name is UTF-8");
  require(!incoming->role || isValidUtf8(*incoming->role), "role is UTF-8");

  // The same message written as plain JSON by another encoder decodes to the same record.
  nlohmann::json json = {{"t", incoming->t}};
  json["name"] = incoming->name ? nlohmann::json(*incoming->name) : nlohmann::json(nullptr);
  if (incoming->role) {
    json["role"] = *incoming->role;
  }
  const std::string text = json.dump();
  require(parlavox::decodeIncoming(parlavox::asBytes(text)) == incoming, "round trip");
  return 0;
}
