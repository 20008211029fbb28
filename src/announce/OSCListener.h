#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/Bytes.h"
#include "platform/Console.h"
#include "platform/Datagram.h"

namespace parlavox {

struct OSCMessage {
  std::string address;
  std::string text;  // the first argument, which must be a string
  bool operator==(const OSCMessage&) const = default;
};

// OSC input for announcements: every sender on one UDP port, no replies, no per-sender state.
class OSCListener {
 public:
  using MessageHandler = std::function<void(const std::string& address, const std::string& text)>;

  OSCListener(platform::Network& network, platform::Console& console);

  // Any thread; pure. The address and first string argument of an OSC 1.0 message, or nothing.
  static std::optional<OSCMessage> parse(Bytes datagram);

  // Loop thread (or main thread before the loop runs). Read afresh for every message.
  void setOnMessage(MessageHandler handler) { onMessage_ = std::move(handler); }

  // Main thread, once. Binds `port`; throws std::system_error when it cannot. Messages are
  // delivered on the server loop; a later failure prints "⚠️  OSC listener failed: {error}".
  void start(std::uint16_t port);

 private:
  platform::Network& network_;
  platform::Console& console_;
  MessageHandler onMessage_;
  std::unique_ptr<platform::DatagramReceiver> receiver_;
};

}  // namespace parlavox
