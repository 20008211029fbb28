#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "Histogram.h"

namespace parlavox::bench {

// One run of open-loop load against one target (the server or the bare forwarder).
struct RunPlan {
  std::uint16_t targetPort = 0;  // where the talkers' audio goes
  std::size_t talkers = 0;       // clients 0 .. talkers-1 talk; every client listens
  double ratePerTalker = 50.0;   // audio datagrams per second and talker
  std::chrono::milliseconds warmup{500};
  std::chrono::milliseconds measure{4000};
  std::chrono::milliseconds tail{250};  // no more sends; late copies still count
  std::uint16_t pingPort = 0;           // keeps every client alive there; 0 for none
  std::function<void()> atStart;        // once, just before the first send
  std::function<bool()> stopWhen;       // polled every 10 ms; true ends the run early
  std::size_t listener = 0;             // whose announcement frames are kept
};

// One announcement frame as it reached the listener.
struct Frame {
  std::int64_t arrivalNs = 0;  // kernel receive time, CLOCK_REALTIME
  std::uint16_t seq = 0;
};

struct RunResult {
  std::uint32_t run = 0;           // the run id in the probes
  std::int64_t windowStartNs = 0;  // the measure window, by intended send time (CLOCK_REALTIME)
  std::int64_t windowEndNs = 0;
  double seconds = 0;              // length of the measure window
  double wallSeconds = 0;          // the whole run: warm-up, window and tail
  std::uint64_t sent = 0;          // audio datagrams sent with an intended time in the window
  std::uint64_t sendFailures = 0;  // sends the kernel refused
  std::uint64_t expected = 0;      // copies that should reach clients: sent × (clients − 1)
  std::uint64_t received = 0;      // copies that did, of those sent in the window
  std::uint64_t misdelivered = 0;  // copies that came back to their own talker
  Histogram latency;               // kernel arrival at the client − actual send time
  Histogram sendLateness;          // actual − intended send time, the generator's own delay
  std::vector<Frame> announcement;
  std::uint64_t targetDrops = 0;     // datagrams the kernel dropped at the target's socket
  std::uint64_t generatorDrops = 0;  // ... and at the clients' sockets
  std::chrono::nanoseconds generatorCpu{};

  // Adds another run's figures to these, as if the two had been one.
  void merge(const RunResult& other);

  double offeredPerSecond() const;
  double deliveredPerSecond() const;
  double loss() const;  // of the expected copies, 0 .. 1
};

// The crew, simulated: many client sockets on loopback driven by one thread with epoll and
// recvmmsg, so that the generator takes as little of the machine as it can. The server and the
// bare forwarder face exactly this generator.
class LoadGenerator {
 public:
  // Opens `clients` sockets, each on a loopback address of its own. Throws std::system_error.
  explicit LoadGenerator(std::size_t clients);
  ~LoadGenerator();
  LoadGenerator(const LoadGenerator&) = delete;
  LoadGenerator& operator=(const LoadGenerator&) = delete;

  // Joins every client to 127.0.0.1:`port` as "crew-{i}" in `role`; true when every one was
  // welcomed within `timeout`.
  bool join(std::uint16_t port, const std::string& role, std::chrono::milliseconds timeout);
  // Every client says "bye" to `port`.
  void leave(std::uint16_t port);
  // Sends one datagram from client `from` to 127.0.0.1:`port`.
  void sendFrom(std::size_t from, std::uint16_t port, const std::vector<std::uint8_t>& datagram);
  // Reads and forgets what is waiting on every socket.
  void drain();

  RunResult run(const RunPlan& plan);

  // The run id that the next run() writes into its probes, for talkers outside the generator.
  std::uint32_t nextRun() const { return nextRun_; }
  std::size_t clients() const { return fds_.size(); }
  std::uint16_t port(std::size_t client) const { return ports_[client]; }

 private:
  static constexpr std::size_t kBatch = 32;
  static constexpr std::size_t kSlot = 2048;
  static constexpr std::size_t kControlSpace = 64;

  // Reads one batch from client `index` and calls `onDatagram(data, length, arrivalNs,
  // sourcePort)` for each datagram. Returns how many there were.
  template <typename OnDatagram>
  std::size_t receiveBatch(std::size_t index, OnDatagram&& onDatagram);

  std::vector<int> fds_;
  std::vector<std::uint16_t> ports_;
  int epoll_ = -1;
  std::uint32_t nextRun_ = 1;
  // Keep-alive pings go round every client in turn, carried on from one run to the next so that
  // short runs do not ping the same first few for ever.
  std::int64_t nextPingNs_ = 0;
  std::size_t pingCursor_ = 0;
  std::vector<std::uint8_t> buffers_;
  std::vector<std::uint8_t> controls_;
  std::array<mmsghdr, kBatch> messages_{};
  std::array<iovec, kBatch> iovecs_{};
  std::array<sockaddr_in, kBatch> sources_{};
};

// CLOCK_REALTIME in nanoseconds: the clock of SO_TIMESTAMPNS.
std::int64_t realtimeNs();

}  // namespace parlavox::bench
