#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace parlavox::bench {

// The physical limit the relay is measured against: one UDP socket, drained with recvmmsg, and
// one sendmmsg per audio datagram that fans it out unchanged to every other registered endpoint.
// No peer table, no masks, no header rewrite. A control datagram (first byte 0x01) from a new
// endpoint registers it and is answered with a "welcome", so the load generator joins it exactly
// as it joins the server.
class BareForwarder {
 public:
  static constexpr std::size_t kMaxEndpoints = 4096;

  // Binds 127.0.0.1:`port` (0: any free port); throws std::system_error when it cannot.
  explicit BareForwarder(std::uint16_t port);
  ~BareForwarder();
  BareForwarder(const BareForwarder&) = delete;
  BareForwarder& operator=(const BareForwarder&) = delete;

  // The thread that owns the forwarder. Waits up to `timeoutMs` (≤ 0: for ever) for datagrams,
  // handles what one recvmmsg returns and says how many datagrams that was (0 on time-out).
  std::size_t serveBatch(int timeoutMs);
  // Forever; the bench's forwarder process.
  [[noreturn]] void serve();

  std::size_t endpoints() const { return count_; }
  std::uint16_t port() const { return port_; }

 private:
  static constexpr std::size_t kBatch = 64;
  static constexpr std::size_t kSlot = 2048;

  void registerEndpoint(const sockaddr_in& from);
  void relayLayout();

  int fd_ = -1;
  std::uint16_t port_ = 0;
  int timeoutMs_ = 0;  // the socket's receive time-out; 0 blocks for ever
  std::vector<sockaddr_in> endpoints_;
  std::size_t count_ = 0;
  // Endpoint index by source port (+1; 0 for none): every client is on 127.0.0.1.
  std::vector<std::uint16_t> byPort_;
  // Two rounds of the endpoints, so that "everyone after sender s" is the contiguous run
  // ring_[s + 1 .. s + count_ - 1]: one sendmmsg, nothing copied per datagram.
  std::vector<mmsghdr> ring_;
  iovec outgoing_{};
  std::vector<std::uint8_t> buffers_;
  std::array<mmsghdr, kBatch> incoming_{};
  std::array<iovec, kBatch> incomingIov_{};
  std::array<sockaddr_in, kBatch> sources_{};
};

// Runs a forwarder on `port` in this process, never returning; for `parlavox-bench
// --bare-forwarder`.
[[noreturn]] void runBareForwarder(std::uint16_t port);

}  // namespace parlavox::bench
