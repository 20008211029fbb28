// Fuzz target: control payloads (a control datagram less its kind byte), read both as a client's
// message (by the server) and as the server's (by parlavox-client).
#include <cstddef>
#include <cstdint>
#include <string>
#include <variant>

#include "FuzzCheck.h"
#include "wire/ControlMessages.h"

namespace {

using namespace parlavox;
using fuzz::require;

// Written again by the encoder everyone uses, a decoded message reads back the same.
template <typename Message>
void roundTrip(const Message& message, const char* what) {
  const std::string datagram = wire::encodeControl(message);
  require(!datagram.empty(), "what was decoded can be encoded");
  const Bytes payload = asBytes(datagram).subspan(1);
  if constexpr (std::is_same_v<Message, wire::Incoming>) {
    require(wire::decodeIncoming(payload) == message, what);
  } else {
    require(wire::decodeServerMessage(payload) == wire::ServerMessage(message), what);
  }
}

}  // namespace

// The name and signature are libFuzzer's.
extern "C" int LLVMFuzzerTestOneInput(  // NOLINT(readability-identifier-naming)
    const std::uint8_t* data, std::size_t size) {
  const Bytes payload(data, size);
  if (const auto incoming = wire::decodeIncoming(payload)) {
    require(!incoming->name || fuzz::isValidUtf8(*incoming->name), "name is UTF-8");
    require(!incoming->role || fuzz::isValidUtf8(*incoming->role), "role is UTF-8");
    roundTrip(*incoming, "a client's message round trip");
  }
  if (const auto message = wire::decodeServerMessage(payload)) {
    std::visit([](const auto& decoded) { roundTrip(decoded, "a server message round trip"); },
               *message);
  }
  return 0;
}
