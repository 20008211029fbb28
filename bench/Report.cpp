#include "Report.h"

#include <fmt/format.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <ctime>

namespace parlavox::bench {
namespace {

constexpr double kMiB = 1024.0 * 1024.0;

double median(std::vector<double> values) {
  if (values.empty()) {
    return 0;
  }
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

double us(std::int64_t ns) {
  return static_cast<double>(ns) / 1e3;
}

std::string verdict(bool pass) {
  return pass ? "PASS" : "MISS";
}

std::string machine() {
  utsname name{};
  ::uname(&name);
  double load[1] = {0};
  ::getloadavg(load, 1);
  return fmt::format("{} CPUs, Linux {}, load average {:.1f} at the end",
                     ::sysconf(_SC_NPROCESSORS_ONLN), name.release, load[0]);
}

double cpuShare(std::chrono::nanoseconds cpu, const RunResult& run) {
  return run.wallSeconds > 0 ? 100.0 * static_cast<double>(cpu.count()) / 1e9 / run.wallSeconds : 0;
}

void relayLine(std::string& out, const char* who, std::size_t clients, std::size_t talkers,
               const RunResult& run, std::chrono::nanoseconds cpu, const std::string& ratio) {
  out += fmt::format(
      "  {:>4} {:>3}  {:<6} {:>10.0f} {:>11.0f} {:>7.3f}% {:>8.1f} {:>8.1f} {:>9.1f} {:>9.1f} "
      "{:>6.1f} {:>9.1f}  {}\n",
      clients == 0 ? std::string() : std::to_string(clients),
      talkers == 0 ? std::string() : std::to_string(talkers), who, run.offeredPerSecond(),
      run.deliveredPerSecond(), 100 * run.loss(), us(run.latency.percentile(50)),
      us(run.latency.percentile(99)), us(run.latency.percentile(99.9)), us(run.latency.max()),
      cpuShare(cpu, run), us(run.sendLateness.percentile(99)), ratio);
}

}  // namespace

std::string formatReport(const Settings& settings, const Results& results) {
  std::string out;
  out += fmt::format("Parlavox benchmark ({} run), {}\n", settings.quick ? "quick" : "full",
                     machine());
  out += "The load generator (one thread) and the process under test share these CPUs.\n";

  struct Target {
    std::string name;
    std::string value;
    std::string result;  // PASS, MISS or n/a
  };
  std::vector<Target> targets;
  auto atTargetScale = [](std::size_t clients) { return clients == 64 || clients == 256; };

  if (!results.relay.empty()) {
    out +=
        "\nRelay at show scale: 649-byte datagrams, 50 per second per talker, open loop; every\n"
        "client listens. Added latency = the copy's arrival at the client (kernel timestamp)\n"
        "minus the datagram's send time. CPU = the target process's share of one CPU.\n"
        "gen late = p99 of the generator's own delay against its schedule, not charged.\n";
    out += fmt::format(
        "  {:>4} {:>3}  {:<6} {:>10} {:>11} {:>8} {:>8} {:>8} {:>9} {:>9} {:>6} {:>9}  {}\n", "K",
        "T", "target", "offered/s", "delivered/s", "loss", "p50 µs", "p99 µs", "p99.9 µs", "max µs",
        "CPU %", "gen late", "p99 server/bare");
    for (const RelayRow& row : results.relay) {
      const double bareP99 = static_cast<double>(row.bare.latency.percentile(99));
      const double serverP99 = static_cast<double>(row.server.latency.percentile(99));
      const double ratio = bareP99 > 0 ? serverP99 / bareP99 : 0;
      relayLine(out, "bare", row.clients, row.talkers, row.bare, row.bareCpu, "");
      relayLine(out, "server", 0, 0, row.server, row.serverCpu, fmt::format("{:.2f}", ratio));
      if (atTargetScale(row.clients)) {
        targets.push_back(
            {fmt::format("p99 added latency ≤ 1.5 × bare, K={} T={}", row.clients, row.talkers),
             fmt::format("{:.2f} ×", ratio), verdict(ratio <= 1.5)});
      }
    }
  }

  if (!results.saturation.empty()) {
    out += fmt::format(
        "\nSaturation: 16 talkers, offered copies per second raised ×{:.1f} per step until both\n"
        "lose more than 10% twice in a row; throughput = the highest delivered copies/s.\n",
        settings.rampFactor);
    for (const Saturation& s : results.saturation) {
      out += fmt::format("  K={}  {:>12} {:>12} {:>8} {:>12} {:>8}\n", s.clients, "offered/s",
                         "bare/s", "lost", "server/s", "lost");
      for (const RampStep& step : s.steps) {
        out +=
            fmt::format("        {:>12.0f} {:>12.0f} {:>7.1f}% {:>12.0f} {:>7.1f}%\n", step.offered,
                        step.bare, 100 * step.bareLoss, step.server, 100 * step.serverLoss);
      }
      const double ratio = s.barePeak > 0 ? s.serverPeak / s.barePeak : 0;
      out += fmt::format(
          "        peak: bare {:.0f}/s (CPU {:.0f}%), server {:.0f}/s (CPU {:.0f}%), "
          "server/bare {:.2f}\n",
          s.barePeak, 100 * s.bareCpuAtPeak, s.serverPeak, 100 * s.serverCpuAtPeak, ratio);
      if (atTargetScale(s.clients)) {
        targets.push_back({fmt::format("throughput at saturation ≥ 80% of bare, K={}", s.clients),
                           fmt::format("{:.0f}%", 100 * ratio), verdict(ratio >= 0.8)});
      }
    }
  }

  for (const Announcements& a : results.announcements) {
    if (!a.firstFrameMs.empty()) {
      const double first = median(a.firstFrameMs);
      const double synthesis = median(a.synthesisMs);
      out += fmt::format(
          "\nAnnouncements: from the OSC datagram to the first frame in a listening client's\n"
          "socket, ten-word sentence, median of {}: {:.1f} ms (min {:.1f}, max {:.1f}). The\n"
          "speech command alone on the same sentence, run in turn: median {:.1f} ms; the rest,\n"
          "{:.1f} ms, is reading, converting and sending.\n",
          a.firstFrameMs.size(), first,
          *std::min_element(a.firstFrameMs.begin(), a.firstFrameMs.end()),
          *std::max_element(a.firstFrameMs.begin(), a.firstFrameMs.end()), synthesis,
          first - synthesis);
      targets.push_back({"first announcement frame ≤ 60 ms after the OSC datagram",
                         fmt::format("{:.1f} ms (speech alone {:.1f})", first, synthesis),
                         verdict(first <= 60)});
    }
    const char* when = a.underLoad ? "16 talkers on the relay" : "relay idle";
    out += fmt::format(
        "Pacing at the client, {}: lateness of frame i in ms against the sender's schedule,\n"
        "start + i × 20 ms; start = min over frames of arrival − i × 20 ms (none leaves early).\n"
        "  {:<12} {:>7} {:>8} {:>8} {:>8} {:>8} {:>12} {:>13}\n",
        when, "", "frames", "missing", "p50", "p99", "max", "drift (last)", "drift (median)");
    for (const auto& [who, p] : {std::pair{"server", a.server}, std::pair{"bare pacer", a.bare}}) {
      out += fmt::format("  {:<12} {:>7} {:>8} {:>8.3f} {:>8.3f} {:>8.3f} {:>+12.3f} {:>+13.3f}\n",
                         who, p.frames, p.missing, p.p50Ms, p.p99Ms, p.maxMs, p.driftMs,
                         p.steadyDriftMs);
    }
    out += fmt::format(
        "  ({:.1f} s of audio; drift (last) = the last frame's lateness; drift (median) = median\n"
        "  lateness of the last second minus the first's)\n",
        a.server.seconds);
    targets.push_back({fmt::format("pacing p99 lateness ≤ 0.5 ms, {}", when),
                       fmt::format("{:.3f} ms (bare {:.3f})", a.server.p99Ms, a.bare.p99Ms),
                       verdict(a.server.p99Ms <= 0.5)});
    targets.push_back({fmt::format("no cumulative drift over {:.0f} s, {}", a.server.seconds, when),
                       fmt::format("{:+.3f} ms", a.server.steadyDriftMs),
                       verdict(std::abs(a.server.steadyDriftMs) <= 0.5)});
  }

  if (results.memory) {
    const Memory& m = *results.memory;
    out += fmt::format(
        "\nMemory of the server, VmRSS (of which anonymous, RssAnon): idle {:.2f} MiB ({:.2f});\n"
        "{} clients joined, after {:.0f} s of traffic: {:.2f} MiB ({:.2f}), peak {:.2f} MiB",
        static_cast<double>(m.idle) / kMiB, static_cast<double>(m.idleAnonymous) / kMiB, m.clients,
        m.trafficSeconds, static_cast<double>(m.loaded) / kMiB,
        static_cast<double>(m.loadedAnonymous) / kMiB, static_cast<double>(m.peak) / kMiB);
    if (m.afterRamps > 0) {
      out += fmt::format("; after the 256-client saturation ramp {:.2f} MiB",
                         static_cast<double>(m.afterRamps) / kMiB);
    }
    out += ".\n";
    const std::uint64_t worst = std::max({m.loaded, m.peak, m.afterRamps});
    targets.push_back({"resident memory ≤ 16 MiB with 256 clients",
                       fmt::format("{:.2f} MiB", static_cast<double>(worst) / kMiB),
                       verdict(static_cast<double>(worst) <= 16 * kMiB)});
  }
  if (results.browser) {
    const BrowserPeers& b = *results.browser;
    out += fmt::format(
        "\nBrowser peers: {} UDP and {} WebSocket peers joined on one channel, under the server's\n"
        "own limits; {} UDP talkers and one WebSocket talker, 50 frames per second each, open\n"
        "loop, {:.1f} s window. Latency = arrival minus send time (UDP: kernel timestamp;\n"
        "WebSocket: the client's read done, after TLS). Lost = not arrived 1 s after the last "
        "send.\n"
        "  {:<16} {:>9} {:>9} {:>8} {:>8} {:>8} {:>9} {:>9}\n",
        b.udpPeers, b.webPeers, b.udpTalkers, b.udp.seconds, "copies to", "expected", "received",
        "loss", "p50 µs", "p99 µs", "p99.9 µs", "max µs");
    for (const auto& [who, run] :
         {std::pair{"UDP peers", &b.udp}, std::pair{"WebSocket peers", &b.web}}) {
      out += fmt::format("  {:<16} {:>9} {:>9} {:>7.3f}% {:>8.1f} {:>8.1f} {:>9.1f} {:>9.1f}\n",
                         who, run->expected, run->received, 100 * run->loss(),
                         us(run->latency.percentile(50)), us(run->latency.percentile(99)),
                         us(run->latency.percentile(99.9)), us(run->latency.max()));
    }
    out += fmt::format(
        "  server CPU {:.1f}% ({:.1f}% with the UDP peers alone, {:.0f} copies/s); per copy: UDP\n"
        "  {:.2f} µs, WebSocket {:.2f} µs. The bench's own CPU: generator {:.1f}%, stations "
        "{:.1f}%.\n"
        "  Sessions the server ended: {}; audio its per-talker rate dropped: {}; joins refused: "
        "{}\n",
        cpuShare(b.serverCpu, b.udp), cpuShare(b.udpAloneCpu, b.udpAlone),
        b.udpAlone.deliveredPerSecond(), b.udpCopyNs() / 1e3, b.webCopyNs() / 1e3,
        cpuShare(b.udp.generatorCpu, b.udp), cpuShare(b.stationsCpu, b.udp), b.sessionsClosed,
        b.audioDropped, b.joinsRefused);
    const double udpP99 = us(b.udp.latency.percentile(99)) / 1e3;
    const double webP99 = us(b.web.latency.percentile(99)) / 1e3;
    targets.push_back(
        {"browser crew: no copy lost, WebSocket or UDP",
         fmt::format("{} of {} (UDP {} of {})", b.web.expected - b.web.received, b.web.expected,
                     b.udp.expected - b.udp.received, b.udp.expected),
         verdict(b.web.received == b.web.expected && b.udp.received == b.udp.expected)});
    targets.push_back({"browser crew: WebSocket p99 latency ≤ UDP p99 + 1 ms",
                       fmt::format("{:.2f} ms (UDP {:.2f})", webP99, udpP99),
                       verdict(webP99 <= udpP99 + 1)});
    targets.push_back(
        {"browser crew: untouched by the limits",
         fmt::format("{} ended, {} dropped, {} refused", b.sessionsClosed, b.audioDropped,
                     b.joinsRefused),
         verdict(b.sessionsClosed == 0 && b.audioDropped == 0 && b.joinsRefused == 0)});
  }
  targets.push_back(
      {"no heap allocation per relayed datagram once warm", "parlavox_relay_alloc_tests", "n/a"});

  out += "\nTargets\n";
  for (const Target& t : targets) {
    out += fmt::format("  [{}] {:<62} {}\n", t.result, t.name, t.value);
  }
  for (const std::string& problem : results.problems) {
    out += fmt::format("  [BROKEN] {}\n", problem);
  }
  return out;
}

}  // namespace parlavox::bench
