#include "web/Feed.h"

#include <utility>

namespace parlavox::web {

Feed::~Feed() {
  for (auto& [number, socket] : readers_) {
    socket->close();
  }
}

void Feed::open(std::shared_ptr<platform::WebSocket> socket) {
  if (full()) {
    socket->close();
    return;
  }
  const std::uint64_t number = next_++;
  // What a reader says is not listened to.
  socket->start({.onMessage = {}, .onClosed = [this, number] { readers_.erase(number); }});
  readers_.emplace(number, std::move(socket));
}

void Feed::closeAll() {
  // close() reports nothing more, so the readers are forgotten here.
  for (auto& [number, socket] : std::exchange(readers_, {})) {
    socket->close();
  }
}

void Feed::publish(std::string_view text) {
  for (auto& [number, socket] : readers_) {
    socket->send(asBytes(text));
  }
}

}  // namespace parlavox::web
