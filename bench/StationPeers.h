#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "LoadGenerator.h"

namespace parlavox::bench {

// Crew stations as browsers are: the development kit's WebSocket sessions (the end-to-end tests'
// StationClient drives the same), each from a loopback address of its own, all on one io_context
// run by a thread of their own beside the load generator's UDP clients. They ping the server
// every 2 s for as long as they live; station 0 can talk, the others only listen. The caller's
// thread owns this object; the stations' own work stays on their thread.
class StationPeers {
 public:
  // Connects `count` sessions to 127.0.0.1:`port`. Throws boost::system::system_error.
  StationPeers(std::size_t count, std::uint16_t port);
  ~StationPeers();
  StationPeers(const StationPeers&) = delete;
  StationPeers& operator=(const StationPeers&) = delete;

  // Every station joins as "station-{i}" in `role`; true when every one was welcomed in time.
  bool join(const std::string& role, std::chrono::milliseconds timeout);
  // Station 0 talks on Main at 50 frames a second, open loop, from now until `untilNs`
  // (CLOCK_REALTIME), its probes marked as run `run`.
  void talk(std::uint32_t run, std::int64_t untilNs);
  // The copies of `run` that reached the stations, of datagrams meant to leave within
  // [`fromNs`, `toNs`): `sent` = station 0's datagrams in that window, `expected` counts those and
  // `udpSent` from the UDP talkers. Latency = when the read completed minus the send time.
  // Forgets everything recorded so far.
  RunResult collect(std::uint32_t run, std::int64_t fromNs, std::int64_t toNs,
                    std::uint64_t udpSent);
  // Sessions the server ended or lost so far.
  std::size_t closed() const;
  // CPU time of the stations' thread so far: when it nears the run's length, the stations, not
  // the server, set the pace.
  std::chrono::nanoseconds cpu() const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// The probe's talker number for station `index`, clear of the UDP talkers' 0 .. T−1.
inline constexpr std::uint16_t stationTalker(std::size_t index) {
  return static_cast<std::uint16_t>(0x8000U + index);
}

}  // namespace parlavox::bench
