#include "monitor/Monitor.h"

#include <fmt/format.h>

#include <bit>
#include <iterator>
#include <nlohmann/json.hpp>

#include "platform/ProcessStats.h"

namespace parlavox {
namespace {

using Seconds = std::chrono::duration<double>;

void metric(std::string& out, std::string_view name, std::string_view type, std::string_view help) {
  out += fmt::format("# HELP {} {}\n# TYPE {} {}\n", name, help, name, type);
}

// A counter of the whole server: its header and its one sample.
void counter(std::string& out, std::string_view name, std::string_view help, std::uint64_t value) {
  metric(out, name, "counter", help);
  out += fmt::format("{} {}\n", name, value);
}

}  // namespace

Monitor::Monitor(const Show& show, const IntercomServer& relay, const Announcements& announcements,
                 const EventLog& log, platform::Clock& clock)
    : show_(show),
      relay_(relay),
      announcements_(announcements),
      log_(log),
      clock_(clock),
      started_(clock.now()) {}

std::string Monitor::snapshot() const {
  const platform::MonoTime now = clock_.now();
  const PeerTable& peers = relay_.peers();
  // Written straight into one string rather than built as a JSON tree first: at a full crew the
  // tree's allocations were most of the snapshot's cost, and the loop pays it twice a second.
  // Channels go once, as names, and each peer's as masks over them; the figures are rounded to
  // what the page shows, which keeps the snapshot short.
  std::string out;
  out.reserve(256 + 240 * peers.joined().size());
  const auto text = [&out](std::string_view value) {
    out += nlohmann::json(value).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  };
  out += "{\"show\":";
  text(show_.name());
  fmt::format_to(std::back_inserter(out), ",\"uptime\":{:.1f},\"unjoined\":{},\"channels\":[",
                 Seconds(now - started_).count(), peers.size() - peers.joined().size());
  const auto& channels = show_.channels();
  for (std::size_t i = 0; i < channels.size() && i < kChannelLimit; ++i) {
    out += i == 0 ? "" : ",";
    text(channels[i]);
  }
  out += "],\"peers\":[";
  bool first = true;
  for (const JoinedPeer& member : peers.joined()) {
    const Peer& peer = *peers.find(*member.address);
    const LinkHealth& health = peer.health;
    const LinkHealth::Window window = health.lastSeconds(now);
    const auto level = health.levelDbfs(now);
    const double loss =
        window.received + window.lost == 0
            ? 0.0
            : static_cast<double>(window.lost) / static_cast<double>(window.received + window.lost);
    out += first ? "{\"id\":" : ",{\"id\":";
    first = false;
    fmt::format_to(std::back_inserter(out), "{},\"name\":", peer.id);
    text(peer.name);
    out += ",\"role\":";
    text(peer.role);
    out += ",\"host\":";
    text(platform::toString(peer.address.host));
    fmt::format_to(
        std::back_inserter(out),
        ",\"transport\":\"{}\",\"talk\":{},\"listen\":{},\"loss\":{:.4f},\"jitterMs\":{:.1f},"
        "\"lastSeenMs\":{},\"talking\":{}",
        peer.address.transport->kind() == platform::Transport::Kind::browser ? "browser" : "udp",
        peer.talkMask, peer.listenMask, loss, health.jitterMs(),
        std::chrono::duration_cast<std::chrono::milliseconds>(now - peer.lastSeen).count(),
        health.talking(now));
    if (level) {
      fmt::format_to(std::back_inserter(out), ",\"levelDbfs\":{:.1f}", *level);
    }
    out += "}";
  }
  const auto& pending = announcements_.pending();
  out += "],\"speaking\":";
  if (pending.empty()) {
    out += "null";
  } else {
    text(pending.front());
  }
  out += ",\"queued\":[";
  for (std::size_t i = 1; i < pending.size(); ++i) {
    out += i == 1 ? "" : ",";
    text(pending[i]);
  }
  out += "],\"log\":[";
  first = true;
  for (const EventLog::Entry& entry : log_.entries()) {
    fmt::format_to(std::back_inserter(out), "{}{{\"ago\":{:.1f},\"line\":", first ? "" : ",",
                   Seconds(now - entry.at).count());
    first = false;
    text(entry.line);
    out += "}";
  }
  // The latest announcements, for announcing again: one channel by its name, or every channel as
  // null, as the operator's announce takes it.
  out += "],\"announced\":[";
  first = true;
  for (const Announcements::Announced& each : announcements_.recent()) {
    fmt::format_to(std::back_inserter(out), "{}{{\"ago\":{:.1f},\"text\":", first ? "" : ",",
                   Seconds(now - each.at).count());
    first = false;
    text(each.text);
    out += ",\"channel\":";
    const auto channel = static_cast<std::size_t>(std::countr_zero(each.mask));
    if (std::popcount(each.mask) == 1 && channel < channels.size()) {
      text(channels[channel]);
    } else {
      out += "null";
    }
    out += "}";
  }
  out += "]}";
  return out;
}

std::string Monitor::metrics() const {
  const platform::MonoTime now = clock_.now();
  const PeerTable& peers = relay_.peers();
  const RelayCounts counts = relay_.counts();
  std::string out;
  metric(out, "parlavox_peers", "gauge", "Peers the server knows, by state.");
  out += fmt::format("parlavox_peers{{state=\"joined\"}} {}\n", peers.joined().size());
  out += fmt::format("parlavox_peers{{state=\"unjoined\"}} {}\n",
                     peers.size() - peers.joined().size());
  counter(out, "parlavox_audio_datagrams_received_total",
          "Audio datagrams received from joined talkers.", counts.audioReceived);
  counter(out, "parlavox_audio_copies_sent_total",
          "Copies of audio datagrams relayed to listeners.", counts.copiesSent);
  counter(out, "parlavox_audio_datagrams_dropped_total",
          "Audio datagrams dropped beyond their talker's rate.", counts.audioDropped);
  counter(out, "parlavox_joins_refused_total",
          "Joins refused: the intercom full, or the joiner's address at its cap.",
          counts.joinsRefused);
  counter(out, "parlavox_announcements_total", "Announcements asked for over OSC.",
          announcements_.asked());
  counter(out, "parlavox_calls_total", "Calls made, by the crew and by show control.",
          counts.calls);
  metric(out, "parlavox_uptime_seconds", "gauge", "Seconds since the server started.");
  out += fmt::format("parlavox_uptime_seconds {:.3f}\n", Seconds(now - started_).count());

  const auto perPeer = [&](std::string_view name, std::string_view type, std::string_view help,
                           auto value) {
    metric(out, name, type, help);
    for (const JoinedPeer& member : peers.joined()) {
      out += fmt::format("{}{{id=\"{}\"}} {}\n", name, member.id,
                         value(peers.find(*member.address)->health));
    }
  };
  perPeer("parlavox_peer_audio_received_total", "counter",
          "Audio datagrams received from a joined peer.",
          [](const LinkHealth& health) { return health.received(); });
  perPeer("parlavox_peer_audio_lost_total", "counter",
          "Audio datagrams a joined peer sent that never arrived, from gaps in their numbers.",
          [](const LinkHealth& health) { return health.lost(); });
  perPeer("parlavox_peer_jitter_seconds", "gauge",
          "Spread of a joined peer's audio arrivals against their 20 ms pace.",
          [](const LinkHealth& health) { return health.jitterMs() / 1000.0; });

  if (const auto process = platform::processStats()) {
    metric(out, "process_cpu_seconds_total", "counter", "User and system CPU time spent.");
    out += fmt::format("process_cpu_seconds_total {:.2f}\n", process->cpuSeconds);
    metric(out, "process_resident_memory_bytes", "gauge", "Resident memory size in bytes.");
    out += fmt::format("process_resident_memory_bytes {}\n", process->residentBytes);
    metric(out, "process_virtual_memory_bytes", "gauge", "Virtual memory size in bytes.");
    out += fmt::format("process_virtual_memory_bytes {}\n", process->virtualBytes);
    metric(out, "process_open_fds", "gauge", "Open file descriptors.");
    out += fmt::format("process_open_fds {}\n", process->openFds);
    metric(out, "process_start_time_seconds", "gauge",
           "Start time of the process since the Unix epoch, in seconds.");
    out += fmt::format("process_start_time_seconds {:.2f}\n", process->startTimeSeconds);
  }
  return out;
}

}  // namespace parlavox
