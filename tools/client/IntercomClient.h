#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <nlohmann/json.hpp>
#include <optional>
#include <random>
#include <span>
#include <string>
#include <vector>

#include "wire/Audio.h"
#include "wire/ControlMessages.h"
#include "wire/Protocol.h"

namespace parlavox::client {

using Datagram = std::vector<std::uint8_t>;

// One audio datagram as received: its header and its samples' bytes.
struct Audio : wire::AudioHeader {
  std::vector<std::uint8_t> samples;
  static std::optional<Audio> parse(std::span<const std::uint8_t> datagram);
};

// A crew client over a real UDP socket: what a crew device does, for tests and for the
// parlavox-client tool. Not thread-safe; one user at a time.
class IntercomClient {
 public:
  // Resolves `host` (name or address) and connects a UDP socket to it, from the local IPv4
  // address `from` if one is given (any of 127.0.0.0/8 on loopback: one machine playing many crew
  // devices). Throws std::system_error.
  explicit IntercomClient(const std::string& host, std::uint16_t port = wire::kIntercomPort,
                          const std::string& from = {});
  ~IntercomClient();
  IntercomClient(const IntercomClient&) = delete;
  IntercomClient& operator=(const IntercomClient&) = delete;

  void sendRaw(std::span<const std::uint8_t> datagram);
  void send(const wire::Incoming& message);
  // Any JSON, a well-formed message or not: the tests' way to say what a client might.
  void sendControl(const nlohmann::json& message);
  void sendAudio(std::uint16_t senderID, std::uint32_t mask, std::uint16_t seq,
                 std::span<const std::uint8_t> samples);

  // The next datagram of any kind, waiting at most `timeout`.
  std::optional<Datagram> receive(std::chrono::milliseconds timeout);
  // The next control message, waiting at most `timeout`; audio met on the way is kept for
  // nextAudio().
  std::optional<nlohmann::json> nextControl(std::chrono::milliseconds timeout);
  // The next audio datagram; control messages met on the way are kept for nextControl().
  std::optional<Audio> nextAudio(std::chrono::milliseconds timeout);
  // Everything that arrives within `window`, kept for nextControl() and nextAudio().
  void collect(std::chrono::milliseconds window);

  // "hi": the config message, or nothing.
  std::optional<nlohmann::json> hi(std::chrono::milliseconds timeout = std::chrono::seconds(2));
  // "join", saying the client understands `features`: the reply ("welcome" or "error"), or
  // nothing.
  std::optional<nlohmann::json> join(const std::optional<std::string>& name,
                                     const std::string& role, wire::Features features = {},
                                     std::chrono::milliseconds timeout = std::chrono::seconds(2));

  // A lossy, reordering network, played by the client itself for soak runs (no netem here):
  // each datagram it sends from now on is lost with probability `loss`, or held back for up to
  // `delay` with probability `reorder` (so later ones overtake it), and sent twice with
  // probability `duplicate`. Held datagrams leave during later sends and receives.
  struct Impairment {
    double loss = 0;
    double reorder = 0;
    double duplicate = 0;
    std::chrono::milliseconds delay{80};
    std::uint32_t seed = 1;
  };
  void impair(const Impairment& impairment);

  int fd() const { return fd_; }

 private:
  void sendNow(std::span<const std::uint8_t> datagram);
  // Sends the held datagrams that are due; the time until the next one is due, if any.
  std::optional<std::chrono::milliseconds> sendHeld();
  void keep(Datagram datagram);
  // Receives, keeping what arrives, until `queue` holds something or `timeout` passes; then takes
  // its first item.
  template <typename Item>
  std::optional<Item> takeNext(std::deque<Item>& queue, std::chrono::milliseconds timeout);

  int fd_ = -1;
  std::optional<Impairment> impairment_;
  std::mt19937 random_;
  std::vector<std::pair<std::chrono::steady_clock::time_point, Datagram>> held_;
  Datagram buffer_ = Datagram(wire::kMaxDatagram + 1);
  std::deque<nlohmann::json> controls_;
  std::deque<Audio> audio_;
};

}  // namespace parlavox::client
