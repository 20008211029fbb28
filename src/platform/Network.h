#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>

#include "platform/Bytes.h"
#include "platform/Transport.h"

namespace parlavox::platform {

// A bound UDP port whose senders are peers: the intercom's own port.
class PeerListener : public Transport {
 public:
  struct Handlers {
    std::function<void()> onReady;
    std::function<void(std::string_view error)> onFailed;  // the port is lost for good
  };
  // Any thread. The port it is bound to.
  virtual std::uint16_t port() const = 0;
  // Loop thread (or the main thread before the loop runs). Starts receiving; everything is
  // reported on the loop.
  virtual void start(Receiver& receiver, Handlers handlers) = 0;
};

// A bound UDP port that only receives, whoever the sender is.
class DatagramListener {
 public:
  struct Handlers {
    std::function<void(Bytes datagram)> onDatagram;
    std::function<void(std::string_view error)> onFailed;
  };
  virtual ~DatagramListener() = default;
  // Loop thread (or the main thread before the loop runs). Handlers run on the loop.
  virtual void start(Handlers handlers) = 0;
};

// Opens ports. Both calls bind at once and throw std::system_error when the port cannot be had
// (for instance, another process holds it: the address is never shared with another socket).
class Network {
 public:
  virtual ~Network() = default;
  virtual std::unique_ptr<PeerListener> listenPeers(std::uint16_t port) = 0;
  virtual std::unique_ptr<DatagramListener> listenDatagrams(std::uint16_t port) = 0;
};

}  // namespace parlavox::platform
