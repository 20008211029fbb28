#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace parlavox::bench {

// The physical limit the relay is measured against: one UDP socket, drained with recvmmsg, whose
// audio datagrams are fanned out unchanged to every other registered endpoint, the copies of a
// whole received batch leaving together in as few sendmmsg calls as the kernel takes (as the
// server batches its own). No peer table, no masks, no header rewrite. A control datagram from a
// new endpoint registers it and is answered with a "welcome", so the load generator joins it
// exactly as it joins the server.
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
  static constexpr std::size_t kMaxSend = 1024;  // the most one sendmmsg takes (UIO_MAXIOV)

  void registerEndpoint(const sockaddr_in& from);
  void queueCopies(std::size_t datagram, std::size_t sender);
  void flush();

  int fd_ = -1;
  std::uint16_t port_ = 0;
  int timeoutMs_ = 0;  // the socket's receive time-out; 0 blocks for ever
  std::vector<sockaddr_in> endpoints_;
  std::size_t count_ = 0;
  // Endpoint index by source port (+1; 0 for none): every client is on 127.0.0.1.
  std::vector<std::uint16_t> byPort_;
  // The copies of one received batch, each pointing at its datagram in `buffers_`.
  std::vector<mmsghdr> outgoing_;
  std::size_t queued_ = 0;
  std::array<iovec, kBatch> outgoingIov_{};
  std::vector<std::uint8_t> buffers_;
  std::array<mmsghdr, kBatch> incoming_{};
  std::array<iovec, kBatch> incomingIov_{};
  std::array<sockaddr_in, kBatch> sources_{};
};

// Runs a forwarder on `port` in this process, never returning; for `parlavox-bench
// --bare-forwarder`.
[[noreturn]] void runBareForwarder(std::uint16_t port);

}  // namespace parlavox::bench
