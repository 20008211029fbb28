#include "Scenarios.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <thread>

#include "StationPeers.h"
#include "Wire.h"
#include "devkit/ChildProcess.h"
#include "platform/ProcFiles.h"
#include "wire/OSCMessage.h"

namespace parlavox::bench {
namespace {

using namespace std::chrono_literals;
using devkit::ChildProcess;

constexpr double kShowRate = 50.0;  // datagrams per second and talker
constexpr std::size_t kRampTalkers = 16;
constexpr double kSaturatedLoss = 0.10;

const char* const kTenWords = "Places please, everyone, for the top of act two now.";
const char* const kHalfMinute =
    "Ladies and gentlemen of the crew, this is your half hour call for this evening's "
    "performance. Please make sure that all personal props are checked and set on the prop "
    "tables, that every costume piece is in its place, and that the fly rail is clear before the "
    "house opens. Sound and lighting operators, please confirm your preset states with the stage "
    "manager on the main channel. Front of house reports that the audience is arriving early "
    "tonight, so we will hold the house for five minutes only. Places will be called in thirty "
    "minutes. Thank you all, and have a wonderful show tonight.";

void progress(const std::string& line) {
  std::fprintf(stderr, "  %s\n", line.c_str());
}

// On the relay's roles file, or on `roles` in the bench's directory.
std::unique_ptr<ChildProcess> startServer(const Settings& settings, const std::string& roles = {}) {
  auto server = std::make_unique<ChildProcess>(
      settings.server.string(),
      roles.empty() ? std::vector<std::string>{} : std::vector<std::string>{roles},
      settings.directory);
  if (!server->waitForLine("✅ Listening on UDP port", 10s) ||
      !server->waitForLine("✅ Listening for OSC", 10s)) {
    throw std::runtime_error("the server did not start: " + server->standardError());
  }
  return server;
}

std::unique_ptr<ChildProcess> startForwarder(const Settings& settings) {
  auto forwarder = std::make_unique<ChildProcess>(
      settings.self.string(),
      std::vector<std::string>{"--bare-forwarder", std::to_string(kForwarderPort)},
      settings.directory);
  if (!forwarder->waitForLine("ready", 10s)) {
    throw std::runtime_error("the bare forwarder did not start: " + forwarder->standardError());
  }
  return forwarder;
}

RunPlan showLoad(std::uint16_t target, std::size_t talkers, std::chrono::milliseconds measure) {
  RunPlan plan;
  plan.targetPort = target;
  plan.talkers = talkers;
  plan.ratePerTalker = kShowRate;
  plan.measure = measure;
  plan.pingPort = kServerPort;
  return plan;
}

// CPU time used so far by all the threads of `pid`; none once it is gone.
std::chrono::nanoseconds cpuTime(pid_t pid) {
  const auto stat = platform::readProcStat(pid);
  const double ticks = stat ? static_cast<double>(stat->userTicks + stat->systemTicks) : 0;
  return std::chrono::nanoseconds(std::llround(ticks * 1e9 / platform::clockTicksPerSecond()));
}

// VmRSS, VmHWM and RssAnon of `pid`; all 0 once it is gone.
platform::ProcStatus memoryOf(pid_t pid) {
  return platform::readProcStatus(pid).value_or(platform::ProcStatus{});
}

// One run against `process`, with the CPU time it took meanwhile.
RunResult measured(LoadGenerator& generator, const RunPlan& plan, const ChildProcess& process,
                   std::chrono::nanoseconds& cpu) {
  generator.drain();
  const auto before = cpuTime(process.pid());
  RunResult result = generator.run(plan);
  cpu = cpuTime(process.pid()) - before;
  return result;
}

std::string describeRun(const char* who, const RunResult& run) {
  return fmt::format("{:7} {:>9.0f} copies/s  loss {:6.3f}%  p99 {:7.1f} µs  max {:8.1f} µs", who,
                     run.deliveredPerSecond(), 100 * run.loss(),
                     static_cast<double>(run.latency.percentile(99)) / 1e3,
                     static_cast<double>(run.latency.max()) / 1e3);
}

void checkDelivered(const RunResult& run, const std::string& what, Results& results) {
  if (run.sent > 0 && run.received == 0) {
    results.problems.push_back(what + ": nothing was delivered");
  }
  if (run.misdelivered > 0) {
    results.problems.push_back(what + ": a talker heard its own audio");
  }
}

void relayGroup(const Settings& settings, std::size_t clients, Results& results) {
  progress(fmt::format("relay, {} clients", clients));
  auto server = startServer(settings);
  auto forwarder = startForwarder(settings);
  LoadGenerator generator(clients);
  if (!generator.join(kServerPort, "Crew", 30s) || !generator.join(kForwarderPort, "Crew", 30s)) {
    results.problems.push_back(fmt::format("{} clients could not all join", clients));
    return;
  }
  generator.drain();

  if (settings.relay) {
    for (const std::size_t talkers : settings.talkerCounts) {
      if (talkers >= clients) {
        continue;
      }
      RelayRow row{clients, talkers, {}, {}, {}, {}};
      // Bare, server, server, bare, each for half the window: a machine that gets busier or
      // quieter during the row favours neither.
      const auto half = settings.measure / 2;
      for (const bool bare : {true, false, false, true}) {
        std::chrono::nanoseconds cpu{};
        if (bare) {
          row.bare.merge(
              measured(generator, showLoad(kForwarderPort, talkers, half), *forwarder, cpu));
          row.bareCpu += cpu;
        } else {
          row.server.merge(measured(generator, showLoad(kServerPort, talkers, half), *server, cpu));
          row.serverCpu += cpu;
        }
      }
      progress(fmt::format("K={} T={}: {} | {}", clients, talkers, describeRun("bare", row.bare),
                           describeRun("server", row.server)));
      checkDelivered(row.bare, fmt::format("bare forwarder, {} clients", clients), results);
      checkDelivered(row.server, fmt::format("server, {} clients", clients), results);
      results.relay.push_back(std::move(row));
    }
  }

  const bool ramp = settings.saturation &&
                    std::find(settings.saturationCounts.begin(), settings.saturationCounts.end(),
                              clients) != settings.saturationCounts.end();
  if (ramp) {
    Saturation saturation;
    saturation.clients = clients;
    const std::size_t talkers = std::min(kRampTalkers, clients - 1);
    int bareSaturated = 0;
    int serverSaturated = 0;
    double offered = settings.rampStart;
    for (std::size_t step = 0;
         step < settings.rampMaxSteps && (bareSaturated < 2 || serverSaturated < 2);
         ++step, offered *= settings.rampFactor) {
      RunPlan plan = showLoad(kForwarderPort, talkers, settings.rampStep);
      plan.warmup = 300ms;
      plan.ratePerTalker =
          offered / static_cast<double>(clients - 1) / static_cast<double>(talkers);
      RampStep result;
      result.offered = offered;
      std::chrono::nanoseconds bareCpu{};
      std::chrono::nanoseconds serverCpu{};
      const RunResult bare = measured(generator, plan, *forwarder, bareCpu);
      plan.targetPort = kServerPort;
      const RunResult served = measured(generator, plan, *server, serverCpu);
      result.bare = bare.deliveredPerSecond();
      result.server = served.deliveredPerSecond();
      result.bareLoss = bare.loss();
      result.serverLoss = served.loss();
      if (result.bare > saturation.barePeak) {
        saturation.barePeak = result.bare;
        saturation.bareCpuAtPeak = static_cast<double>(bareCpu.count()) / 1e9 / bare.wallSeconds;
      }
      if (result.server > saturation.serverPeak) {
        saturation.serverPeak = result.server;
        saturation.serverCpuAtPeak =
            static_cast<double>(serverCpu.count()) / 1e9 / served.wallSeconds;
      }
      bareSaturated = result.bareLoss > kSaturatedLoss ? bareSaturated + 1 : 0;
      serverSaturated = result.serverLoss > kSaturatedLoss ? serverSaturated + 1 : 0;
      progress(fmt::format(
          "ramp K={} offered {:>7.0f}/s: bare {:>7.0f}/s ({:5.1f}% lost; dropped in {} out {}; "
          "CPU {:.2f} s), server {:>7.0f}/s ({:5.1f}% lost; dropped in {} out {}; CPU {:.2f} s)",
          clients, offered, result.bare, 100 * result.bareLoss, bare.targetDrops,
          bare.generatorDrops, static_cast<double>(bareCpu.count()) / 1e9, result.server,
          100 * result.serverLoss, served.targetDrops, served.generatorDrops,
          static_cast<double>(serverCpu.count()) / 1e9));
      saturation.steps.push_back(result);
    }
    results.saturation.push_back(std::move(saturation));
  }
  if (const std::size_t gone = server->count("timed out"); gone > 0) {
    results.problems.push_back(
        fmt::format("{} of {} clients timed out at the server", gone, clients));
  }
  if (clients == 256 && results.memory) {
    results.memory->afterRamps = memoryOf(server->pid()).residentBytes;
  }
  generator.leave(kServerPort);
}

// Frames of one announcement, from the OSC datagram to the server's "finished" line.
struct Heard {
  std::int64_t oscSentNs = 0;
  std::vector<Frame> frames;
};

RunPlan listening(LoadGenerator& generator, std::size_t talkers) {
  RunPlan plan = showLoad(kServerPort, talkers, 120s);
  plan.warmup = 0ms;
  plan.tail = 100ms;
  plan.listener = generator.clients() - 1;
  return plan;
}

Heard announce(LoadGenerator& generator, ChildProcess& server, const std::string& text,
               std::size_t talkers, std::size_t& announced) {
  const std::size_t expect = ++announced;
  Heard heard;
  const std::vector<std::uint8_t> osc = wire::OSCMessage{"/parlavox/say", text}.encode();
  RunPlan plan = listening(generator, talkers);
  plan.atStart = [&] {
    heard.oscSentNs = realtimeNs();
    generator.sendFrom(0, kOscPort, osc);
  };
  plan.stopWhen = [&] { return server.count("📣 Announcement finished") >= expect; };
  generator.drain();
  heard.frames = generator.run(plan).announcement;
  return heard;
}

// The same number of frames from the bare pacer, heard by the same client under the same load.
std::vector<Frame> barePaced(const Settings& settings, LoadGenerator& generator, std::size_t frames,
                             std::size_t talkers) {
  ChildProcess pacer(settings.self.string(),
                     {"--bare-pacer", std::to_string(kPacerPort), std::to_string(frames)},
                     settings.directory);
  if (!pacer.waitForLine("ready", 10s)) {
    throw std::runtime_error("the bare pacer did not start: " + pacer.standardError());
  }
  RunPlan plan = listening(generator, talkers);
  const std::size_t listener = plan.listener;
  plan.atStart = [&] { generator.sendFrom(listener, kPacerPort, {0x00}); };
  plan.stopWhen = [&] { return pacer.count("done") >= 1; };
  generator.drain();
  return generator.run(plan).announcement;
}

// How long the speech command alone takes to speak `text` into a file.
double synthesisMs(const Settings& settings, const std::string& text) {
  const std::filesystem::path hostSay = "/usr/bin/say";
  const std::filesystem::path say =
      std::filesystem::exists(hostSay) ? hostSay : settings.server.parent_path() / "parlavox-say";
  const std::int64_t start = realtimeNs();
  ChildProcess run(say.string(), {"-o", (settings.directory / "reference.aiff").string(), text},
                   settings.directory);
  run.wait();
  return static_cast<double>(realtimeNs() - start) / 1e6;
}

void memoryAndAnnouncements(const Settings& settings, Results& results) {
  progress("memory and announcements, 256 clients");
  auto server = startServer(settings);
  std::this_thread::sleep_for(1s);
  Memory memory;
  const platform::ProcStatus idleMemory = memoryOf(server->pid());
  memory.idle = idleMemory.residentBytes;
  memory.idleAnonymous = idleMemory.anonymousBytes;
  memory.clients = 256;
  LoadGenerator generator(memory.clients);
  if (!generator.join(kServerPort, "Crew", 30s)) {
    results.problems.emplace_back("256 clients could not all join");
    return;
  }
  if (settings.memory) {
    RunPlan plan = showLoad(kServerPort, 16, settings.memoryTraffic);
    const RunResult traffic = generator.run(plan);
    checkDelivered(traffic, "memory run", results);
    const platform::ProcStatus loaded = memoryOf(server->pid());
    memory.loaded = loaded.residentBytes;
    memory.loadedAnonymous = loaded.anonymousBytes;
    memory.peak = loaded.peakResidentBytes;
    memory.trafficSeconds = traffic.seconds;
    progress(fmt::format("RSS idle {:.2f} MiB, after {:.0f} s of traffic {:.2f} MiB (peak {:.2f})",
                         static_cast<double>(memory.idle) / 1048576, memory.trafficSeconds,
                         static_cast<double>(memory.loaded) / 1048576,
                         static_cast<double>(memory.peak) / 1048576));
    results.memory = memory;
  }
  if (!settings.announcements) {
    return;
  }
  std::size_t announced = 0;
  Announcements idle;
  for (std::size_t n = 0; n < settings.firstFrameSamples; ++n) {
    // The speech command alone, then the whole path, in turn: both meet the same machine.
    idle.synthesisMs.push_back(synthesisMs(settings, kTenWords));
    const Heard heard = announce(generator, *server, kTenWords, 0, announced);
    if (heard.frames.empty()) {
      results.problems.emplace_back("an announcement reached no client");
      return;
    }
    idle.firstFrameMs.push_back(
        static_cast<double>(heard.frames.front().arrivalNs - heard.oscSentNs) / 1e6);
    progress(
        fmt::format("announcement {}: first frame after {:.1f} ms (speech command alone "
                    "{:.1f} ms), {} frames",
                    n + 1, idle.firstFrameMs.back(), idle.synthesisMs.back(), heard.frames.size()));
  }
  const char* const pacedText = settings.longAnnouncement ? kHalfMinute : kTenWords;
  for (const std::size_t talkers : {std::size_t{0}, std::size_t{16}}) {
    if (talkers > 0 && !settings.longAnnouncement) {
      break;
    }
    Announcements& paced = talkers == 0 ? idle : results.announcements.emplace_back();
    paced.underLoad = talkers > 0;
    paced.server =
        measurePacing(announce(generator, *server, pacedText, talkers, announced).frames);
    if (paced.server.frames == 0) {
      results.problems.emplace_back("an announcement reached no client");
      return;
    }
    paced.bare = measurePacing(barePaced(settings, generator, paced.server.frames, talkers));
    progress(fmt::format(
        "pacing with {} talkers: server {} frames, lateness p99 {:.3f} ms; bare "
        "pacer {} frames, p99 {:.3f} ms",
        talkers, paced.server.frames, paced.server.p99Ms, paced.bare.frames, paced.bare.p99Ms));
    if (talkers == 0) {
      results.announcements.insert(results.announcements.begin(), idle);
    }
  }
  generator.leave(kServerPort);
}

// A counter of the server's own metrics, as Prometheus would scrape it.
std::uint64_t metric(const Settings& settings, std::string_view name) {
  const auto scraped =
      devkit::runToEnd("curl", {"-sk", "https://127.0.0.1:50505/metrics"}, settings.directory);
  for (const std::string& line : scraped.lines) {
    if (line.starts_with(name) && line.size() > name.size() && line[name.size()] == ' ') {
      return std::stoull(line.substr(name.size() + 1));
    }
  }
  throw std::runtime_error(fmt::format("the server's metrics have no {}", name));
}

// UDP crew and browser crew on one channel in the same run: what each kind of peer received, and
// what each kind of copy cost the server. The UDP crew runs alone first, so that the CPU the
// stations add, over the copies they received, is the cost of a WebSocket copy.
void browserPeers(const Settings& settings, Results& results) {
  BrowserPeers browser;
  browser.udpPeers = settings.browserUdpPeers;
  browser.webPeers = settings.browserWebPeers;
  browser.udpTalkers = settings.browserTalkers;
  progress(fmt::format("browser peers: {} UDP, {} WebSocket", browser.udpPeers, browser.webPeers));
  auto server = startServer(settings, settings.crewRoles);
  // Printed once the station's TCP port listens.
  if (!server->waitForLine("Certificate SHA-256", 10s)) {
    throw std::runtime_error("the crew station did not start: " +
                             server->waitForLine("Crew station unavailable", 0s).value_or(""));
  }
  LoadGenerator generator(browser.udpPeers);
  if (!generator.join(kServerPort, "Crew", 30s)) {
    results.problems.emplace_back("the UDP peers could not all join");
    return;
  }
  browser.udpAlone =
      measured(generator, showLoad(kServerPort, browser.udpTalkers, settings.browserMeasure / 2),
               *server, browser.udpAloneCpu);
  StationPeers stations(browser.webPeers, kServerPort);
  if (!stations.join("Crew", 30s)) {
    results.problems.emplace_back("the WebSocket peers could not all join");
    return;
  }
  RunPlan plan = showLoad(kServerPort, browser.udpTalkers, settings.browserMeasure);
  plan.tail = 1s;  // a copy is lost only if it never comes: TCP may bring it late
  const std::uint32_t run = generator.nextRun();
  plan.atStart = [&] { stations.talk(run, realtimeNs() + (plan.warmup + plan.measure) / 1ns); };
  const auto stationsBefore = stations.cpu();
  browser.udp = measured(generator, plan, *server, browser.serverCpu);
  browser.stationsCpu = stations.cpu() - stationsBefore;
  browser.web =
      stations.collect(run, browser.udp.windowStartNs, browser.udp.windowEndNs, browser.udp.sent);
  // The station's datagrams are owed to every UDP peer as well; the generator counted those copies.
  browser.udp.expected += browser.web.sent * browser.udpPeers;
  browser.sessionsClosed = stations.closed();
  browser.audioDropped = metric(settings, "parlavox_audio_datagrams_dropped_total");
  browser.joinsRefused = metric(settings, "parlavox_joins_refused_total");
  progress(fmt::format(
      "{} | {} (station talker sent {}, sessions closed {}; ns per copy: UDP {:.0f}, WS {:.0f})",
      describeRun("UDP", browser.udp), describeRun("WS", browser.web), browser.web.sent,
      browser.sessionsClosed, browser.udpCopyNs(), browser.webCopyNs()));
  checkDelivered(browser.udp, "browser peers, UDP", results);
  checkDelivered(browser.web, "browser peers, WebSocket", results);
  if (browser.web.sent == 0) {
    results.problems.emplace_back("browser peers: the WebSocket talker sent nothing");
  }
  if (const std::size_t gone = server->count("timed out"); gone > 0) {
    results.problems.push_back(fmt::format("browser peers: {} peers timed out", gone));
  }
  results.browser = std::move(browser);
}

// CPU over the whole run (warm-up, window, tail) scaled to the window, whose copies are counted.
double windowCpuNs(std::chrono::nanoseconds cpu, const RunResult& run) {
  return run.wallSeconds > 0 ? static_cast<double>(cpu.count()) * run.seconds / run.wallSeconds : 0;
}

}  // namespace

double BrowserPeers::udpCopyNs() const {
  return udpAlone.received > 0
             ? windowCpuNs(udpAloneCpu, udpAlone) / static_cast<double>(udpAlone.received)
             : 0;
}

double BrowserPeers::webCopyNs() const {
  const double udpShare = udpCopyNs() * static_cast<double>(udp.received);
  return web.received > 0
             ? (windowCpuNs(serverCpu, udp) - udpShare) / static_cast<double>(web.received)
             : 0;
}

Results runAll(const Settings& settings) {
  Results results;
  try {
    if (settings.memory || settings.announcements) {
      memoryAndAnnouncements(settings, results);
    }
    if (settings.relay || settings.saturation) {
      for (const std::size_t clients : settings.clientCounts) {
        relayGroup(settings, clients, results);
      }
    }
    if (settings.websocket) {
      browserPeers(settings, results);
    }
  } catch (const std::exception& error) {
    results.problems.emplace_back(error.what());
  }
  return results;
}

}  // namespace parlavox::bench
