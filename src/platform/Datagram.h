#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "platform/Bytes.h"

namespace parlavox::platform {

// The traffic of one remote endpoint (address and port) on a listening port. The listener hands
// out at most one live flow per endpoint; a datagram from an endpoint without one makes a new flow
// and is delivered through it.
class Flow {
 public:
  enum class End { failed, cancelled };
  struct Handlers {
    std::function<void(Bytes datagram)> onDatagram;
    std::function<void(End end, std::string_view error)> onEnd;
  };

  virtual ~Flow() = default;
  // A key that names this flow and no other for the life of the process.
  virtual std::uint64_t key() const = 0;
  // Loop thread. From now on datagrams and the end are reported through `handlers`, on the loop.
  virtual void start(Handlers handlers) = 0;
  // Loop thread. Sends `head` followed by `body` as one datagram. The bytes are copied before the
  // call returns. Fire and forget: a full buffer or an unreachable client is never reported and
  // never disturbs other flows.
  virtual void send(Bytes head, Bytes body = {}) = 0;
  // Loop thread. Delivers nothing more; End::cancelled is reported later, on the loop.
  virtual void cancel() = 0;
};

// A bound UDP port that sorts its traffic into flows.
class FlowListener {
 public:
  struct Handlers {
    std::function<void()> onReady;
    std::function<void(std::shared_ptr<Flow> flow)> onFlow;
    std::function<void(std::string_view error)> onFailed;
  };
  virtual ~FlowListener() = default;
  // Loop thread (or the main thread before the loop runs). Handlers run on the loop.
  virtual void start(Handlers handlers) = 0;
};

// A bound UDP port that only receives, whoever the sender is.
class DatagramReceiver {
 public:
  struct Handlers {
    std::function<void(Bytes datagram)> onDatagram;
    std::function<void(std::string_view error)> onFailed;
  };
  virtual ~DatagramReceiver() = default;
  // Loop thread (or the main thread before the loop runs). Handlers run on the loop.
  virtual void start(Handlers handlers) = 0;
};

// Opens ports. Both calls bind at once and throw std::system_error when the port cannot be had
// (for instance, another process holds it: the address is never shared with another socket).
class Network {
 public:
  virtual ~Network() = default;
  virtual std::unique_ptr<FlowListener> listenFlows(std::uint16_t port) = 0;
  virtual std::unique_ptr<DatagramReceiver> listenDatagrams(std::uint16_t port) = 0;
};

}  // namespace parlavox::platform
