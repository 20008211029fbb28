#include "announce/OSCListener.h"

#include <fmt/core.h>

namespace parlavox {

OSCListener::OSCListener(platform::Network& network, platform::Console& console)
    : network_(network), console_(console) {}

void OSCListener::start(std::uint16_t port, MessageHandler onMessage) {
  receiver_ = network_.listenDatagrams(port);
  // The receiver is owned by this listener and delivers nothing once destroyed, so `this` stays
  // valid in every handler.
  receiver_->start({
      .onDatagram =
          [onMessage = std::move(onMessage)](Bytes datagram) {
            if (const auto message = wire::OSCMessage::parse(datagram)) {
              onMessage(*message);
            }
          },
      .onFailed =
          [this](std::string_view error) {
            console_.print(fmt::format("⚠️  OSC listener failed: {}", error));
          },
  });
}

}  // namespace parlavox
