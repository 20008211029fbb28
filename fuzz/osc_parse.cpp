// Fuzz target: OSC datagrams as any sender on the network may send them.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "FuzzCheck.h"
#include "wire/OSCMessage.h"

// The name and signature are libFuzzer's.
extern "C" int LLVMFuzzerTestOneInput(  // NOLINT(readability-identifier-naming)
    const std::uint8_t* data, std::size_t size) {
  using parlavox::fuzz::isValidUtf8;
  using parlavox::fuzz::require;
  using parlavox::wire::OSCMessage;

  const parlavox::Bytes datagram(data, size);
  const auto message = OSCMessage::parse(datagram);
  if (!message) {
    return 0;
  }
  require(!message->address.empty() && message->address.front() == '/', "address begins with /");
  require(isValidUtf8(message->address) && isValidUtf8(message->text), "results are UTF-8");
  require(message->address.find('\0') == std::string::npos &&
              message->text.find('\0') == std::string::npos,
          "results hold no zero byte");

  // Nothing after the text's zero byte is read, so more bytes change nothing.
  std::vector<std::uint8_t> longer(datagram.begin(), datagram.end());
  longer.insert(longer.end(), {0xFF, 0x00, 0x2C, 0x73});
  require(OSCMessage::parse(longer) == message, "trailing bytes are ignored");

  // Written back by the writer everyone uses, it reads back unchanged.
  require(OSCMessage::parse(message->encode()) == message, "round trip");
  return 0;
}
