#include "client/StationClient.h"

namespace parlavox::client {

StationClient::StationClient(const std::string& host, std::uint16_t port)
    : session_(context_, tls_, host, port) {
  session_.start(
      [this](std::span<const std::uint8_t> message) {
        received_.emplace_back(message.begin(), message.end());
      },
      [] {});
}

bool StationClient::runOne(std::chrono::steady_clock::time_point deadline) {
  context_.restart();
  return context_.run_one_until(deadline) > 0;
}

void StationClient::send(std::span<const std::uint8_t> datagram) {
  session_.send({datagram.begin(), datagram.end()});
  // A session's write has no time limit, as the blocking write this stands for had none.
  while (session_.open() && !session_.idle()) {
    context_.restart();
    if (context_.run_one() == 0) {
      break;
    }
  }
}

// The session reads all the time the context runs; what arrives while a call waits for something
// else is kept for the next.
std::optional<std::vector<std::uint8_t>> StationClient::receive(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (received_.empty() && session_.open() && runOne(deadline)) {
  }
  if (received_.empty()) {
    return std::nullopt;
  }
  auto message = std::move(received_.front());
  received_.pop_front();
  return message;
}

void StationClient::close() {
  session_.close();
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
  while (session_.open() && runOne(deadline)) {
  }
}

}  // namespace parlavox::client
