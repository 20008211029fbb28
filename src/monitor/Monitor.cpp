#include "monitor/Monitor.h"

#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "platform/ProcessStats.h"

namespace parlavox {
namespace {

using Seconds = std::chrono::duration<double>;

nlohmann::json channelsOf(std::uint32_t mask, const std::vector<std::string>& channels) {
  auto names = nlohmann::json::array();
  for (std::size_t i = 0; i < channels.size() && i < kChannelLimit; ++i) {
    if ((mask >> i & 1U) != 0) {
      names.push_back(channels[i]);
    }
  }
  return names;
}

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
  auto crew = nlohmann::json::array();
  for (const JoinedPeer& member : peers.joined()) {
    const Peer& peer = *peers.find(*member.address);
    const LinkHealth& health = peer.health;
    const LinkHealth::Window window = health.lastSeconds(now);
    const auto level = health.levelDbfs(now);
    crew.push_back({
        {"id", peer.id},
        {"name", peer.name},
        {"role", peer.role},
        {"host", platform::toString(peer.address.host)},
        {"transport",
         peer.address.transport->kind() == platform::Transport::Kind::browser ? "browser" : "udp"},
        {"talk", channelsOf(peer.talkMask, show_.channels())},
        {"listen", channelsOf(peer.listenMask, show_.channels())},
        {"received", health.received()},
        {"lost", health.lost()},
        {"loss", window.received + window.lost == 0
                     ? 0.0
                     : static_cast<double>(window.lost) /
                           static_cast<double>(window.received + window.lost)},
        {"jitterMs", health.jitterMs()},
        {"lastSeenMs",
         std::chrono::duration_cast<std::chrono::milliseconds>(now - peer.lastSeen).count()},
        {"talking", health.talking(now)},
        {"levelDbfs", level ? nlohmann::json(*level) : nlohmann::json()},
    });
  }
  auto log = nlohmann::json::array();
  for (const EventLog::Entry& entry : log_.entries()) {
    log.push_back({{"ago", Seconds(now - entry.at).count()}, {"line", entry.line}});
  }
  auto announced = nlohmann::json::array();
  for (const Announcements::Announced& each : announcements_.recent()) {
    // One channel by its name, or every channel as null, as the operator's announce takes it.
    const auto names = channelsOf(each.mask, show_.channels());
    const bool all = names.size() == std::min(show_.channels().size(), kChannelLimit);
    announced.push_back({{"ago", Seconds(now - each.at).count()},
                         {"text", each.text},
                         {"channel", all || names.size() != 1 ? nlohmann::json() : names[0]}});
  }
  const auto& pending = announcements_.pending();
  nlohmann::json snapshot{
      {"show", show_.name()},
      {"channels", show_.channels()},
      {"uptime", Seconds(now - started_).count()},
      {"unjoined", peers.size() - peers.joined().size()},
      {"peers", std::move(crew)},
      {"speaking", pending.empty() ? nlohmann::json() : nlohmann::json(pending.front())},
      {"queued", pending.empty() ? nlohmann::json::array()
                                 : nlohmann::json(std::vector<std::string>(pending.begin() + 1,
                                                                           pending.end()))},
      {"log", std::move(log)},
      {"announced", std::move(announced)},
  };
  return snapshot.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
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
