#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "LoadGenerator.h"
#include "Pacing.h"
#include "wire/Protocol.h"

namespace parlavox::bench {

struct Settings {
  bool quick = false;
  std::filesystem::path server;     // the parlavox binary under test
  std::filesystem::path self;       // this program, run again as the bare forwarder
  std::filesystem::path directory;  // the server's working directory, with its roles.json
  std::vector<std::size_t> clientCounts;
  std::vector<std::size_t> talkerCounts;
  std::vector<std::size_t> saturationCounts;
  std::chrono::milliseconds measure{};
  std::chrono::milliseconds rampStep{};
  double rampStart = 20'000;  // offered copies per second at the first step
  double rampFactor = 1.4;
  std::size_t rampMaxSteps = 14;
  std::chrono::milliseconds memoryTraffic{};
  std::size_t firstFrameSamples = 0;
  bool longAnnouncement = true;  // pace a half-minute announcement, not the ten-word one
  bool relay = true;
  bool saturation = true;
  bool announcements = true;
  bool memory = true;
  bool websocket = true;
  // Browser peers: UDP and WebSocket crew on one channel, UDP talkers and one station talking,
  // under the server's own limits (`crewRoles`, beside `directory`'s roles.json): a full crew,
  // which the intercom caps at 500.
  std::size_t browserUdpPeers = 244;
  std::size_t browserWebPeers = 256;
  std::size_t browserTalkers = 15;
  std::chrono::milliseconds browserMeasure{8000};
  std::string crewRoles;
};

inline constexpr std::uint16_t kServerPort = wire::kIntercomPort;
inline constexpr std::uint16_t kOscPort = 47000;
inline constexpr std::uint16_t kForwarderPort = 50600;
inline constexpr std::uint16_t kPacerPort = 50700;

// One show-scale run, side by side: the same load against the bare forwarder and the server.
struct RelayRow {
  std::size_t clients = 0;
  std::size_t talkers = 0;
  RunResult bare;
  RunResult server;
  std::chrono::nanoseconds bareCpu{};
  std::chrono::nanoseconds serverCpu{};
};

// One step of a load ramp.
struct RampStep {
  double offered = 0;  // copies per second
  double bare = 0;     // delivered copies per second
  double server = 0;
  double bareLoss = 0;
  double serverLoss = 0;
};

struct Saturation {
  std::size_t clients = 0;
  std::vector<RampStep> steps;
  double barePeak = 0;
  double serverPeak = 0;
  double serverCpuAtPeak = 0;  // share of one CPU
  double bareCpuAtPeak = 0;
};

struct Announcements {
  bool underLoad = false;
  std::vector<double> firstFrameMs;  // OSC datagram sent → first frame in the client's socket
  std::vector<double> synthesisMs;   // the speech command alone on the same sentence, in turn
  Pacing server;
  Pacing bare;  // the bare pacer, same length, same conditions
};

struct Memory {
  std::uint64_t idle = 0;
  std::uint64_t loaded = 0;
  std::uint64_t idleAnonymous = 0;
  std::uint64_t loadedAnonymous = 0;
  std::uint64_t peak = 0;
  std::size_t clients = 0;
  double trafficSeconds = 0;
  std::uint64_t afterRamps = 0;  // the 256-client grid's server, after its ramps
};

// One run with UDP and WebSocket peers side by side: the copies each kind of peer received, from
// every talker (the UDP talkers and station 0).
struct BrowserPeers {
  std::size_t udpPeers = 0;
  std::size_t webPeers = 0;
  std::size_t udpTalkers = 0;
  RunResult udpAlone;  // the UDP peers before any station joined: the cost of a UDP copy
  RunResult udp;
  RunResult web;  // its `sent` is station 0's datagrams
  std::size_t sessionsClosed = 0;
  std::chrono::nanoseconds udpAloneCpu{};
  std::chrono::nanoseconds serverCpu{};
  std::chrono::nanoseconds stationsCpu{};  // the bench's own stations, over the same run
  // What the server's limits turned away meanwhile, by its own metrics: none for a real crew.
  std::uint64_t audioDropped = 0;
  std::uint64_t joinsRefused = 0;

  // Server CPU nanoseconds per copy sent, within the window: UDP's from the run without stations,
  // the WebSocket's what the stations added to that.
  double udpCopyNs() const;
  double webCopyNs() const;
};

struct Results {
  std::vector<RelayRow> relay;
  std::vector<Saturation> saturation;
  std::vector<Announcements> announcements;
  std::optional<Memory> memory;
  std::optional<BrowserPeers> browser;
  std::vector<std::string> problems;  // the bench itself broke
};

// Runs every scenario that `settings` asks for. Progress goes to standard error.
Results runAll(const Settings& settings);

}  // namespace parlavox::bench
