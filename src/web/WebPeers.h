#pragma once

#include <cstdint>
#include <memory>
#include <unordered_map>

#include "platform/Transport.h"
#include "platform/WebSocket.h"

namespace parlavox::web {

// The crew who come by browser, as a transport: each WebSocket opened at the intercom's path is a
// peer, and each of its binary messages one datagram of the intercom, byte for byte, both ways.
// Loop thread only.
class WebPeers final : public platform::Transport {
 public:
  // `receiver` (the relay) outlives this.
  explicit WebPeers(Receiver& receiver) : receiver_(receiver) {}
  // Closes every session still open.
  ~WebPeers() override;
  WebPeers(const WebPeers&) = delete;
  WebPeers& operator=(const WebPeers&) = delete;

  // A session just opened: a peer at an address of its own, from its first message on.
  void open(std::shared_ptr<platform::WebSocket> socket);

  Kind kind() const override { return Kind::browser; }
  void send(const platform::PeerAddress& to, Bytes head, Bytes body) override;
  void end(const platform::PeerAddress& peer) override;

  std::size_t size() const { return sessions_.size(); }

 private:
  Receiver& receiver_;
  std::uint64_t nextSlot_ = 1;
  std::unordered_map<std::uint64_t, std::shared_ptr<platform::WebSocket>> sessions_;
};

}  // namespace parlavox::web
