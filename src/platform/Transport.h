#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/Bytes.h"
#include "platform/HostAddress.h"

namespace parlavox::platform {

class Transport;

// Where a peer is: its transport, its host and what tells it apart from other peers on that host
// (a UDP source port and IPv6 scope; a WebSocket session's number). The logic above the
// transports only compares and hashes it.
struct PeerAddress {
  Transport* transport = nullptr;
  HostAddress host;
  std::uint64_t slot = 0;
  bool operator==(const PeerAddress&) const = default;
};

struct PeerAddressHash {
  std::size_t operator()(const PeerAddress& address) const noexcept;
};

// A way to reach peers: the intercom's UDP port, or any other carrier of the same datagrams.
// Whatever the carrier, a peer is a peer: the relay serves them all alike.
class Transport {
 public:
  // What carries the datagrams, for the operator's eyes only: the relay never asks.
  enum class Kind { udp, browser };

  // The side that serves a transport's peers (the relay). Called on the loop thread.
  class Receiver {
   public:
    virtual ~Receiver() = default;
    // A datagram from `from`, the first one included: a new address is a new peer.
    virtual void deliver(const PeerAddress& from, Bytes datagram) = 0;
    // `peer` is gone (its connection closed or failed). Never reported after end(peer).
    virtual void ended(const PeerAddress& peer) = 0;
  };

  virtual ~Transport() = default;
  // Any thread.
  virtual Kind kind() const = 0;
  // Loop thread. Sends `head` followed by `body` to `to` as one datagram. The bytes are copied
  // before the call returns. Fire and forget: a full buffer or an unreachable peer is never
  // reported and never disturbs the others.
  virtual void send(const PeerAddress& to, Bytes head, Bytes body = {}) = 0;
  // Loop thread. The relay has let `peer` go: nothing more of it is reported. A datagram from the
  // same address later is a new peer.
  virtual void end(const PeerAddress& peer) = 0;
};

}  // namespace parlavox::platform
