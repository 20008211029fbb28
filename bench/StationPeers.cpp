#include "StationPeers.h"

#include <atomic>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/system_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "Wire.h"

namespace parlavox::bench {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
using tcp = asio::ip::tcp;
using ErrorCode = beast::error_code;

constexpr std::int64_t kFrameNs = 20'000'000;

// A copy as a station read it.
struct Copy {
  std::uint32_t run = 0;
  std::uint16_t talker = 0;
  std::uint16_t station = 0;
  std::int64_t intendedNs = 0;
  std::int64_t latencyNs = 0;
};

}  // namespace

struct StationPeers::State {
  struct Station {
    Station(asio::io_context& io, asio::ssl::context& tls, std::size_t n)
        : socket(io, tls), index(n) {}
    beast::websocket::stream<beast::ssl_stream<beast::tcp_stream>> socket;
    std::size_t index;
    beast::flat_buffer in;
    std::deque<std::vector<std::uint8_t>> out;  // Beast takes one write at a time
    bool writing = false;
    bool open = true;
  };

  asio::io_context io;
  asio::ssl::context tls{asio::ssl::context::tls_client};
  std::vector<std::unique_ptr<Station>> stations;
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
  void send(Station& station, std::vector<std::uint8_t> message) {
    station.out.push_back(std::move(message));
    write(station);
  }

  void write(Station& station) {
    if (station.writing || station.out.empty() || !station.open) {
      return;
    }
    station.writing = true;
    auto& message = station.out.front();
    // Latency counts from the moment the datagram leaves, not from when it was queued here.
    if (const auto probe = readProbe(message)) {
      restamp(message, probe->seq, probe->intendedNs, realtimeNs());
    }
    station.socket.async_write(asio::buffer(message),
                               [this, &station](ErrorCode error, std::size_t) {
                                 station.writing = false;
                                 station.out.pop_front();
                                 error ? fail(station) : write(station);
                               });
  }

  void read(Station& station) {
    station.socket.async_read(station.in, [this, &station](ErrorCode error, std::size_t) {
      if (error) {
        fail(station);
        return;
      }
      const std::int64_t arrival = realtimeNs();
      const auto data = station.in.cdata();
      const std::span<const std::uint8_t> message(static_cast<const std::uint8_t*>(data.data()),
                                                  data.size());
      if (const auto probe = readProbe(message)) {
        const std::lock_guard lock(mutex);
        copies.push_back({probe->run, probe->talker, static_cast<std::uint16_t>(station.index),
                          probe->intendedNs, arrival - probe->sentNs});
      } else if (isWelcome(message)) {
        ++welcomed;
      }
      station.in.consume(station.in.size());
      read(station);
    });
  }

  void fail(Station& station) {
    closed += station.open ? 1U : 0U;
    station.open = false;
  }

  // The server forgets a peer silent for 8 s; listening stations say nothing otherwise.
  void ping() {
    for (auto& station : stations) {
      send(*station, control({wire::MessageType::ping, std::nullopt, std::nullopt}));
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
      send(*stations.front(), frame);
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
  s.tls.set_verify_mode(asio::ssl::verify_none);  // the server's certificate is self-signed
  const tcp::endpoint server(asio::ip::make_address_v4("127.0.0.1"), port);
  for (std::size_t i = 0; i < count; ++i) {
    auto station = std::make_unique<State::Station>(s.io, s.tls, i);
    tcp::socket& socket = beast::get_lowest_layer(station->socket).socket();
    socket.open(tcp::v4());
    // 127.2.x.y: each browser is a device of its own, as each UDP client is (127.1.x.y).
    socket.bind({asio::ip::address_v4((127U << 24) | (2U << 16) |
                                      static_cast<std::uint32_t>((i / 250) << 8 | (i % 250 + 1))),
                 0});
    socket.set_option(tcp::no_delay(true));  // as browsers set it
    socket.connect(server);
    station->socket.next_layer().handshake(asio::ssl::stream_base::client);
    station->socket.handshake("127.0.0.1:" + std::to_string(port), "/intercom");
    station->socket.binary(true);
    s.stations.push_back(std::move(station));
  }
  for (auto& station : s.stations) {
    s.read(*station);
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
    for (auto& station : s.stations) {
      s.send(*station,
             control({wire::MessageType::join, "station-" + std::to_string(station->index), role}));
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

}  // namespace parlavox::bench
