#pragma once

#include <cstdint>
#include <memory>
#include <string_view>
#include <system_error>
#include <vector>

#include "platform/Datagram.h"

namespace parlavox::test {

// A receive-only port driven by the test: deliver() and fail() call the handlers given to start()
// directly, as the loop would.
class FakeDatagramReceiver final : public platform::DatagramReceiver {
 public:
  void start(Handlers handlers) override {
    handlers_ = std::move(handlers);
    started_ = true;
  }
  bool started() const { return started_; }
  void deliver(Bytes datagram) {
    if (handlers_.onDatagram) {
      handlers_.onDatagram(datagram);
    }
  }
  void fail(std::string_view error) {
    if (handlers_.onFailed) {
      handlers_.onFailed(error);
    }
  }

 private:
  Handlers handlers_;
  bool started_ = false;
};

// Hands out FakeDatagramReceivers and remembers the ports asked for; a port listed in `busy`
// fails to bind the way a port held by another process does.
class FakeDatagramNetwork final : public platform::Network {
 public:
  std::unique_ptr<platform::FlowListener> listenFlows(std::uint16_t /*port*/) override {
    throw std::system_error(std::make_error_code(std::errc::operation_not_supported));
  }
  std::unique_ptr<platform::DatagramReceiver> listenDatagrams(std::uint16_t port) override {
    ports.push_back(port);
    for (const std::uint16_t taken : busy) {
      if (taken == port) {
        throw std::system_error(std::make_error_code(std::errc::address_in_use));
      }
    }
    auto receiver = std::make_unique<FakeDatagramReceiver>();
    last = receiver.get();
    return receiver;
  }

  std::vector<std::uint16_t> busy;
  std::vector<std::uint16_t> ports;
  FakeDatagramReceiver* last = nullptr;  // the receiver handed out last, owned by the caller
};

}  // namespace parlavox::test
