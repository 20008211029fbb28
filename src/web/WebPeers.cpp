#include "web/WebPeers.h"

namespace parlavox::web {

WebPeers::~WebPeers() {
  for (auto& [slot, socket] : sessions_) {
    socket->close();
  }
}

void WebPeers::open(std::shared_ptr<platform::WebSocket> socket) {
  const platform::PeerAddress address{this, socket->remoteHost(), nextSlot_++};
  socket->start({
      .onMessage = [this, address](Bytes datagram) { receiver_.deliver(address, datagram); },
      .onClosed =
          [this, address] {
            sessions_.erase(address.slot);
            receiver_.ended(address);
          },
  });
  sessions_.emplace(address.slot, std::move(socket));
}

void WebPeers::send(const platform::PeerAddress& to, Bytes head, Bytes body) {
  if (const auto found = sessions_.find(to.slot); found != sessions_.end()) {
    found->second->send(head, body);
  }
}

void WebPeers::end(const platform::PeerAddress& peer) {
  if (const auto found = sessions_.find(peer.slot); found != sessions_.end()) {
    found->second->closeWhenSent();  // its last message, why it ends, goes first
    sessions_.erase(found);
  }
}

}  // namespace parlavox::web
