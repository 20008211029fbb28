#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/Console.h"
#include "platform/Network.h"
#include "wire/OSCMessage.h"

namespace parlavox {

// OSC input for announcements: every sender on one UDP port, no replies, no per-sender state.
class OSCListener {
 public:
  // `text` is the message's first argument when that is a string; a cue such as "stop" may have
  // no arguments, or others.
  using MessageHandler =
      std::function<void(const std::string& address, const std::optional<std::string>& text)>;

  OSCListener(platform::Network& network, platform::Console& console);

  // Main thread, once. Binds `port`; throws std::system_error when it cannot. Each OSC message
  // goes to `onMessage` on the server loop; datagrams that are none are dropped silently. A later
  // failure prints "⚠️  OSC listener failed: {error}".
  void start(std::uint16_t port, MessageHandler onMessage);

 private:
  platform::Network& network_;
  platform::Console& console_;
  std::unique_ptr<platform::DatagramListener> socket_;
};

}  // namespace parlavox
