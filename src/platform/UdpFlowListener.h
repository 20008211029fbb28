#pragma once

#include <cstdint>
#include <memory>
#include <unordered_map>

#include "platform/Datagram.h"
#include "platform/UdpSocket.h"

namespace parlavox::platform {

class UdpFlow;

// Sorts the datagrams of one UDP port into flows, one per remote endpoint. A Linux UDP socket has
// no connections of its own; this gives the logic the per-client view it wants.
class UdpFlowListener final : public FlowListener {
 public:
  // Binds at once; throws std::system_error when the port cannot be had.
  UdpFlowListener(asio::io_context& context, std::uint16_t port);
  ~UdpFlowListener() override;

  // Loop thread (or main thread before the loop runs).
  void start(Handlers handlers) override;

 private:
  friend class UdpFlow;
  void onDatagram(Bytes datagram, const Endpoint& from);
  void forget(const Endpoint& endpoint);

  asio::io_context& context_;
  UdpSocket socket_;
  Handlers handlers_;
  std::unordered_map<Endpoint, std::shared_ptr<UdpFlow>, EndpointHash> flows_;
  std::uint64_t nextKey_ = 1;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

class UdpFlow final : public Flow {
 public:
  UdpFlow(UdpFlowListener& listener, const Endpoint& endpoint, std::uint64_t key);

  std::uint64_t key() const override { return key_; }
  void start(Handlers handlers) override;
  void send(Bytes head, Bytes body) override;
  void cancel() override;

 private:
  friend class UdpFlowListener;
  UdpFlowListener* listener_;  // null once the flow is cancelled or the listener is gone
  Endpoint endpoint_;
  std::uint64_t key_;
  Handlers handlers_;
};

}  // namespace parlavox::platform
