#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/WebSocket.h"

namespace parlavox::test {

// One WebSocket, played by the test: what the logic sends is kept, and the test speaks and hangs
// up for the other side.
class FakeWebSocket final : public platform::WebSocket {
 public:
  explicit FakeWebSocket(std::uint8_t hostByte = 1) { host_.bytes.back() = hostByte; }

  const platform::HostAddress& remoteHost() const override { return host_; }
  void start(Handlers handlers) override { handlers_ = std::move(handlers); }
  void send(Bytes head, Bytes body) override {
    std::string message(head.begin(), head.end());
    sent.push_back(message.append(body.begin(), body.end()));
  }
  void close() override { closed = true; }
  void closeWhenSent() override { closed = true; }

  // As the real socket: a message nobody listens for is dropped.
  void say(std::string_view message) {
    if (handlers_.onMessage) {
      handlers_.onMessage(asBytes(message));
    }
  }
  void hangUp() { handlers_.onClosed(); }

  std::vector<std::string> sent;
  bool closed = false;

 private:
  platform::HostAddress host_;
  Handlers handlers_;
};

}  // namespace parlavox::test
