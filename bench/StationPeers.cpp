#include "StationPeers.h"

#include <pthread.h>

#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/system_timer.hpp>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "Wire.h"
#include "devkit/StationSession.h"

namespace parlavox::bench {
namespace {

namespace asio = boost::asio;
using ErrorCode = boost::system::error_code;

constexpr std::int64_t kFrameNs = 20'000'000;

// A copy as a station read it.
struct Copy {
  std::uint32_t run = 0;
  std::uint16_t talker = 0;
  std::uint16_t station = 0;
  std::int64_t intendedNs = 0;
  std::int64_t latencyNs = 0;
};

// 127.2.x.y: each browser is a device of its own, as each UDP client is (127.1.x.y).
std::string stationAddress(std::size_t index) {
  return "127.2." + std::to_string(index / 250) + "." + std::to_string(index % 250 + 1);
}

}  // namespace

struct StationPeers::State {
  asio::io_context io;
  asio::ssl::context tls{asio::ssl::context::tls_client};
  std::vector<std::unique_ptr<devkit::StationSession>> stations;
  asio::steady_timer pinger{io};
  // The talker's deadlines are CLOCK_REALTIME, the clock of the probes' times.
  asio::system_timer pacer{io};
  std::vector<std::uint8_t> frame = std::vector<std::uint8_t>(kDatagramSize);
  std::uint32_t talkRun = 0;
  std::uint32_t seq = 0;
  std::int64_t nextNs = 0;
  std::int64_t untilNs = 0;
  std::thread thread;

  std::atomic<std::size_t> welcomed = 0;
  std::atomic<std::size_t> closed = 0;
  std::mutex mutex;  // guards what follows, read by the caller's thread
  std::vector<Copy> copies;
  std::vector<std::pair<std::uint32_t, std::int64_t>> spoken;  // station 0's (run, intended time)

  // Everything below runs on the stations' thread.
  void received(std::size_t station, std::span<const std::uint8_t> message) {
    const std::int64_t arrival = realtimeNs();
    if (const auto probe = readProbe(message)) {
      const std::lock_guard lock(mutex);
      copies.push_back({probe->run, probe->talker, static_cast<std::uint16_t>(station),
                        probe->intendedNs, arrival - probe->sentNs});
    } else if (isWelcome(message)) {
      ++welcomed;
    }
  }

  // The server forgets a peer silent for 8 s; listening stations say nothing otherwise.
  void ping() {
    for (auto& station : stations) {
      station->send(control(wire::Incoming::of(wire::MessageType::ping)));
    }
    pinger.expires_after(wire::kKeepaliveInterval);
    pinger.async_wait([this](ErrorCode error) {
      if (!error) {
        ping();
      }
    });
  }

  // Open loop, as the UDP talkers: whatever is due goes now, a late wake-up sends its backlog.
  void pace() {
    const std::int64_t now = realtimeNs();
    for (; nextNs <= now && nextNs < untilNs; nextNs += kFrameNs) {
      restamp(frame, seq++, nextNs, 0);
      {
        const std::lock_guard lock(mutex);
        spoken.emplace_back(talkRun, nextNs);
      }
      stations.front()->send(frame);
    }
    if (nextNs >= untilNs) {
      return;
    }
    pacer.expires_at(std::chrono::system_clock::time_point(
        std::chrono::duration_cast<std::chrono::system_clock::duration>(
            std::chrono::nanoseconds(nextNs))));
    pacer.async_wait([this](ErrorCode error) {
      if (!error) {
        pace();
      }
    });
  }
};

StationPeers::StationPeers(std::size_t count, std::uint16_t port)
    : state_(std::make_unique<State>()) {
  State& s = *state_;
  for (std::size_t i = 0; i < count; ++i) {
    auto& station = *s.stations.emplace_back(std::make_unique<devkit::StationSession>(
        s.io, s.tls, "127.0.0.1", port, stationAddress(i)));
    // Latency counts from the moment the datagram leaves, not from when it was queued.
    station.beforeWrite([](std::vector<std::uint8_t>& message) {
      if (const auto probe = readProbe(message)) {
        restamp(message, probe->seq, probe->intendedNs, realtimeNs());
      }
    });
    station.start([&s, i](std::span<const std::uint8_t> message) { s.received(i, message); },
                  [&s] { ++s.closed; });
  }
  s.ping();
  s.thread = std::thread([&s] { s.io.run(); });
}

StationPeers::~StationPeers() {
  state_->io.stop();
  state_->thread.join();
}

bool StationPeers::join(const std::string& role, std::chrono::milliseconds timeout) {
  State& s = *state_;
  asio::post(s.io, [&s, role] {
    for (std::size_t i = 0; i < s.stations.size(); ++i) {
      s.stations[i]->send(control(wire::Incoming::join("station-" + std::to_string(i), role)));
    }
  });
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (s.welcomed < s.stations.size() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return s.welcomed == s.stations.size();
}

void StationPeers::talk(std::uint32_t run, std::int64_t untilNs) {
  State& s = *state_;
  asio::post(s.io, [&s, run, untilNs] {
    writeAudio(s.frame, kMainChannel, Probe{run, stationTalker(0), 0, 0, 0});
    s.talkRun = run;
    s.seq = 0;
    s.nextNs = realtimeNs();
    s.untilNs = untilNs;
    s.pace();
  });
}

RunResult StationPeers::collect(std::uint32_t run, std::int64_t fromNs, std::int64_t toNs,
                                std::uint64_t udpSent) {
  State& s = *state_;
  RunResult result;
  const auto inWindow = [&](std::uint32_t of, std::int64_t intended) {
    return of == run && intended >= fromNs && intended < toNs;
  };
  const std::lock_guard lock(s.mutex);
  for (const auto& [of, intended] : s.spoken) {
    result.sent += inWindow(of, intended) ? 1U : 0U;
  }
  for (const Copy& copy : s.copies) {
    if (inWindow(copy.run, copy.intendedNs)) {
      ++result.received;
      result.latency.record(copy.latencyNs);
      result.misdelivered += copy.talker == stationTalker(copy.station) ? 1U : 0U;
    }
  }
  s.copies.clear();
  s.spoken.clear();
  const std::uint64_t stations = s.stations.size();
  result.expected = udpSent * stations + result.sent * (stations - 1);
  result.run = run;
  result.windowStartNs = fromNs;
  result.windowEndNs = toNs;
  result.seconds = static_cast<double>(toNs - fromNs) / 1e9;
  return result;
}

std::size_t StationPeers::closed() const {
  return state_->closed;
}

std::chrono::nanoseconds StationPeers::cpu() const {
  clockid_t clock{};
  timespec used{};
  if (::pthread_getcpuclockid(state_->thread.native_handle(), &clock) != 0 ||
      ::clock_gettime(clock, &used) != 0) {
    return {};
  }
  return std::chrono::seconds(used.tv_sec) + std::chrono::nanoseconds(used.tv_nsec);
}

}  // namespace parlavox::bench
