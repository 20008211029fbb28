// parlavox-bench: the relay, the announcements, the server's memory and browser peers, each
// measured in one run next to a reference, so that the ratios hold on a busy machine. See
// bench/README.md.
//
//   parlavox-bench [--quick] [--only relay,saturation,announce,memory,websocket] [--server PATH]
//                  [--clients 16,64,...] [--talkers 4,8,...]
//
// Exits 1 when the bench itself breaks (a target process does not start, nothing is delivered),
// never because a target is missed: the table says PASS or MISS for each.
#include <sys/prctl.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <system_error>
#include <vector>

#include "BareForwarder.h"
#include "BarePacer.h"
#include "PrivateNetwork.h"
#include "Report.h"
#include "Scenarios.h"

namespace {

using namespace parlavox::bench;
using namespace std::chrono_literals;

// One channel everyone talks and listens on: each datagram goes to every other client.
constexpr const char* kShow = R"(
  "show" : "Bench",
  "channels" : [ "Main", "Tech" ],
  "roles" : [ { "name" : "Crew", "talk" : [ "Main" ], "listen" : [ "Main" ] } ],
  "oscPort" : 47000)";
// The relay's runs lift the cap per address and the rate per talker: the saturation ramp drives 16
// talkers far beyond a real one's pace. The browser crew runs as a show would, with neither lifted.
constexpr const char* kLifted = R"(,
  "peersPerHost" : 1000,
  "audioPerTalker" : 100000)";

// The directory this program was started from, where parlavox and parlavox-say lie beside it.
std::filesystem::path ownDirectory() {
  std::error_code error;
  const auto self = std::filesystem::read_symlink("/proc/self/exe", error);
  return error ? std::filesystem::current_path() : self.parent_path();
}

int usage() {
  std::fprintf(
      stderr,
      "usage: parlavox-bench [--quick] [--only relay,saturation,announce,memory,websocket] "
      "[--server PATH] [--clients 16,64,...] [--talkers 4,8,...] [--browser UDP,WS,TALKERS]\n");
  return 2;
}

// "16,64" → {16, 64}; anything else yields nothing.
std::vector<std::size_t> numbers(const std::string& list) {
  std::vector<std::size_t> out;
  std::size_t at = 0;
  while (at < list.size()) {
    const std::size_t comma = std::min(list.find(',', at), list.size());
    try {
      out.push_back(std::stoul(list.substr(at, comma - at)));
    } catch (const std::exception&) {
      return {};
    }
    at = comma + 1;
  }
  return out;
}

Settings fullRun() {
  Settings s;
  s.clientCounts = {16, 64, 128, 256};
  s.talkerCounts = {4, 8, 16};
  s.saturationCounts = {64, 256};
  s.measure = 4s;
  s.rampStep = 1s;
  s.memoryTraffic = 60s;
  s.firstFrameSamples = 20;
  return s;
}

Settings quickRun() {
  Settings s;
  s.quick = true;
  s.clientCounts = {16, 64};
  s.talkerCounts = {4};
  s.saturationCounts = {64};
  s.measure = 1200ms;
  s.rampStep = 300ms;
  s.rampStart = 40'000;
  s.rampFactor = 1.6;
  s.rampMaxSteps = 7;
  s.memoryTraffic = 3s;
  s.firstFrameSamples = 3;
  s.longAnnouncement = false;
  s.browserUdpPeers = 8;
  s.browserWebPeers = 4;
  s.browserTalkers = 2;  // and the station
  s.browserMeasure = 1200ms;
  return s;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> args(argv + 1, argv + argc);
  if (args.size() == 2 && args[0] == "--bare-forwarder") {
    try {
      BareForwarder forwarder(static_cast<std::uint16_t>(std::stoul(args[1])));
      std::printf("ready\n");
      std::fflush(stdout);
      forwarder.serve();
    } catch (const std::exception& error) {
      std::fprintf(stderr, "bare forwarder: %s\n", error.what());
      return 1;
    }
  }

  if (args.size() == 3 && args[0] == "--bare-pacer") {
    try {
      runBarePacer(static_cast<std::uint16_t>(std::stoul(args[1])), std::stoul(args[2]));
    } catch (const std::exception& error) {
      std::fprintf(stderr, "bare pacer: %s\n", error.what());
      return 1;
    }
  }

  bool quick = false;
  std::string only;
  std::vector<std::size_t> clients;
  std::vector<std::size_t> talkers;
  std::vector<std::size_t> browser;
  std::filesystem::path server = ownDirectory() / "parlavox";
  for (std::size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "--quick") {
      quick = true;
    } else if (args[i] == "--only" && i + 1 < args.size()) {
      only = args[++i];
    } else if (args[i] == "--clients" && i + 1 < args.size()) {
      clients = numbers(args[++i]);
    } else if (args[i] == "--talkers" && i + 1 < args.size()) {
      talkers = numbers(args[++i]);
    } else if (args[i] == "--browser" && i + 1 < args.size()) {
      browser = numbers(args[++i]);
      if (browser.size() != 3) {
        return usage();
      }
    } else if (args[i] == "--server" && i + 1 < args.size()) {
      server = std::filesystem::absolute(args[++i]);
    } else {
      return usage();
    }
  }
  Settings settings = quick ? quickRun() : fullRun();
  if (!only.empty()) {
    auto wanted = [&](const char* part) { return only.find(part) != std::string::npos; };
    settings.relay = wanted("relay");
    settings.saturation = wanted("saturation");
    settings.announcements = wanted("announce");
    settings.memory = wanted("memory");
    settings.websocket = wanted("websocket");
  }
  if (!clients.empty()) {
    settings.clientCounts = clients;
  }
  if (!talkers.empty()) {
    settings.talkerCounts = talkers;
  }
  if (!browser.empty()) {
    settings.browserUdpPeers = browser[0];
    settings.browserWebPeers = browser[1];
    settings.browserTalkers = browser[2];
  }
  settings.server = server;
  settings.self = ownDirectory() / "parlavox-bench";
  if (!std::filesystem::exists(settings.server)) {
    std::fprintf(stderr, "parlavox-bench: no server at %s\n", settings.server.c_str());
    return 1;
  }

  if (const std::string error = enterPrivateNetwork(); !error.empty()) {
    std::fprintf(stderr, "parlavox-bench: can't make a network namespace of its own: %s\n",
                 error.c_str());
    return 1;
  }
  // The generator's sleeps end within a microsecond of their deadline.
  (void)::prctl(PR_SET_TIMERSLACK, 1000UL, 0UL, 0UL, 0UL);

  std::random_device random;
  settings.directory =
      std::filesystem::temp_directory_path() / ("parlavox-bench-" + std::to_string(random()));
  std::filesystem::create_directories(settings.directory);
  std::ofstream(settings.directory / "roles.json") << "{" << kShow << kLifted << "\n}";
  settings.crewRoles = "crew.json";
  std::ofstream(settings.directory / settings.crewRoles) << "{" << kShow << "\n}";

  std::fprintf(stderr, "parlavox-bench: %s run against %s\n", quick ? "quick" : "full",
               settings.server.c_str());
  const Results results = runAll(settings);
  std::error_code ignored;
  std::filesystem::remove_all(settings.directory, ignored);

  std::fputs(formatReport(settings, results).c_str(), stdout);
  return results.problems.empty() ? 0 : 1;
}
