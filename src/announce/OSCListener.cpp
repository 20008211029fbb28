#include "announce/OSCListener.h"

#include <fmt/core.h>

#include <algorithm>

#include "config/Names.h"

namespace parlavox {
namespace {

// The address of a message without a string first argument: up to its zero byte, beginning with
// "/" as every OSC address does.
std::optional<std::string> addressOf(Bytes datagram) {
  const auto zero = std::find(datagram.begin(), datagram.end(), 0);
  if (zero == datagram.end()) {
    return std::nullopt;
  }
  std::string address = wire::decodeLenient({datagram.begin(), zero});
  if (firstGraphemes(address, 1) != "/") {
    return std::nullopt;
  }
  return address;
}

}  // namespace

OSCListener::OSCListener(platform::Network& network, platform::Console& console)
    : network_(network), console_(console) {}

void OSCListener::start(std::uint16_t port, MessageHandler onMessage) {
  socket_ = network_.listenDatagrams(port);
  // The receiver is owned by this listener and delivers nothing once destroyed, so `this` stays
  // valid in every handler.
  socket_->start({
      .onDatagram =
          [onMessage = std::move(onMessage)](Bytes datagram) {
            if (const auto message = wire::OSCMessage::parse(datagram)) {
              onMessage(message->address, message->text);
            } else if (const auto address = addressOf(datagram)) {
              onMessage(*address, std::nullopt);
            }
          },
      .onFailed =
          [this](std::string_view error) {
            console_.warning(platform::EventKind::service,
                             fmt::format("⚠️  OSC listener failed: {}", error));
          },
  });
}

}  // namespace parlavox
