// parlavox-soak: a crew of clients on a bad network against a real server, for as long as a
// show. Each client speaks from a loopback address of its own, loses, reorders, delays and
// duplicates its own datagrams, keeps alive and talks in turns; the server's resident memory is
// sampled throughout. Passes (exit 0) when the server is still running at the end, every client
// is still joined, and resident memory after the first minute drifted by less than 5%. With
// --flood N, N idle connections from 16 addresses hold the web port throughout (those it closes
// opened again) and an announcement goes out every 10 s: it passes only if every one was spoken.
//   tests/e2e/netns-run parlavox-soak PARLAVOX [--minutes N] [--clients N] [--flood N]
// Run it in a network namespace of its own (netns-run) so the fixed ports are free.
#include <fmt/format.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "client/CrewSession.h"
#include "client/IntercomClient.h"
#include "devkit/ChildProcess.h"
#include "devkit/Flood.h"
#include "devkit/TempDir.h"
#include "platform/Clock.h"
#include "platform/Console.h"
#include "wire/Audio.h"

namespace {

using namespace parlavox;
using namespace std::chrono_literals;

// What the sessions print (roster changes of sixteen clients) is not the soak's report.
class Silent final : public platform::Console {
 public:
  void print(const platform::ConsoleEvent& /*event*/) override {}
};

struct Member {
  std::atomic<std::uint64_t> sent = 0;
  std::atomic<std::uint64_t> heard = 0;
  std::atomic<bool> joined = false;
};

// One crew device: joins, then talks for 2 s out of every `turn`, its place in the turn set by
// its number, and keeps alive in between, until `stop`.
void crewMember(std::size_t n, std::size_t crew, Member& member, const std::atomic<bool>& stop) {
  static const char* const kRoles[] = {"Stage Manager", "Lighting", "Sound", "Backstage Crew"};
  Silent console;
  platform::SteadyClock clock;
  client::IntercomClient link("127.0.0.1", wire::kIntercomPort, fmt::format("127.1.0.{}", n + 1));
  link.impair({.loss = 0.03,
               .reorder = 0.05,
               .duplicate = 0.01,
               .seed = static_cast<std::uint32_t>(n + 1)});
  client::CrewSession session(link, console, clock, "soak");
  session.setAudioHandler([&](const client::Audio&, platform::MonoTime) { ++member.heard; });
  std::optional<client::ShowInfo> show;
  while (!stop && !(show = session.fetchShow())) {
  }
  while (!stop && !session.join(*show, kRoles[n % 4], fmt::format("Crew {}", n + 1))) {
  }
  const std::vector<std::uint8_t> samples(wire::kFrameBytes, 0x22);
  const auto turn = std::chrono::seconds(2 * crew / 2);  // two talking at a time
  const auto start = clock.now();
  std::uint16_t seq = 0;
  while (!stop) {
    const auto now = clock.now();
    const auto inTurn = (now - start + std::chrono::seconds(n)) % turn;
    if (inTurn < 2s && session.talkMask() != 0) {
      link.sendAudio(session.id(), session.talkMask(), seq++, samples);
      ++member.sent;
    }
    session.serviceUntil(now + wire::kFramePeriod, stop);
    member.joined = session.joined();
  }
  session.leave();
}

}  // namespace

int main(int argc, char** argv) {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  const std::vector<std::string> args(argv + 1, argv + argc);
  if (args.empty()) {
    std::puts("usage: parlavox-soak PARLAVOX [--minutes N] [--clients N] [--flood N]");
    return 2;
  }
  double minutes = 10;
  std::size_t crew = 16;
  std::size_t floodSize = 0;
  for (std::size_t i = 1; i + 1 < args.size(); i += 2) {
    if (args[i] == "--minutes") {
      minutes = std::stod(args[i + 1]);
    } else if (args[i] == "--clients") {
      crew = std::stoul(args[i + 1]);
    } else if (args[i] == "--flood") {
      floodSize = std::stoul(args[i + 1]);
    }
  }

  // The server in a scratch directory, on its built-in show.
  const devkit::TempDir directory;
  devkit::ChildProcess server(std::filesystem::absolute(args[0]).string(), {}, directory.path());
  if (!server.waitForLine("✅ Listening on UDP port")) {
    std::printf("❌ %s did not start\n", args[0].c_str());
    return 1;
  }

  std::optional<devkit::IdleConnections> flood;
  if (floodSize > 0) {
    flood.emplace(floodSize, 16, wire::kIntercomPort, 40);
  }
  std::size_t announced = 0;
  std::size_t reopened = 0;
  std::atomic<bool> stop = false;
  std::vector<Member> members(crew);
  std::vector<std::thread> threads;
  for (std::size_t n = 0; n < crew; ++n) {
    threads.emplace_back(crewMember, n, crew, std::ref(members[n]), std::cref(stop));
  }
  const auto start = std::chrono::steady_clock::now();
  const auto length = std::chrono::duration_cast<std::chrono::steady_clock::duration>(
      std::chrono::duration<double, std::ratio<60>>(minutes));
  const auto end = start + length;
  const std::chrono::steady_clock::duration warmUp =
      std::min<std::chrono::steady_clock::duration>(1min, length / 4);
  long baseline = -1;
  long lowest = 0;
  long highest = 0;
  long last = 0;
  bool serverAlive = true;
  while (std::chrono::steady_clock::now() < end && serverAlive) {
    if (flood) {
      reopened += flood->topUp();
      announced += devkit::runProgram(
                       {"oscsend", "127.0.0.1", "47000", "/parlavox/say", "s", "Standby"}) == 0
                       ? 1U
                       : 0U;
    }
    const double cpu = devkit::cpuShare(server.pid(), 10s);
    serverAlive = !server.waitForExit(std::chrono::milliseconds(0));
    last = server.residentKiB();
    const auto elapsed = std::chrono::steady_clock::now() - start;
    if (baseline < 0 && elapsed >= warmUp) {
      baseline = lowest = highest = last;
    } else if (baseline >= 0) {
      lowest = std::min(lowest, last);
      highest = std::max(highest, last);
    }
    std::size_t joined = 0;
    for (const Member& m : members) {
      joined += m.joined ? 1U : 0U;
    }
    std::printf("%5.0f s  resident %ld KiB  CPU %.0f%%  %zu/%zu joined\n",
                std::chrono::duration<double>(elapsed).count(), last, cpu * 100, joined, crew);
  }
  std::size_t joined = 0;
  std::uint64_t sent = 0;
  std::uint64_t heard = 0;
  for (const Member& m : members) {
    joined += m.joined ? 1U : 0U;
    sent += m.sent;
    heard += m.heard;
  }
  stop = true;
  for (auto& t : threads) {
    t.join();
  }
  const std::size_t timedOut = server.count("timed out");
  const std::size_t spoken = server.count("📣 Announcement finished");
  server.stop();

  const double drift =
      baseline > 0 ? 100.0 * static_cast<double>(std::max(highest - baseline, baseline - lowest)) /
                         static_cast<double>(baseline)
                   : 100.0;
  std::printf(
      "%.1f min, %zu clients (3%% loss, 5%% held up to 80 ms, 1%% duplicated): "
      "%llu frames sent, %llu copies heard\n",
      minutes, crew, static_cast<unsigned long long>(sent), static_cast<unsigned long long>(heard));
  std::printf(
      "server %s; %zu/%zu joined at the end; resident %ld KiB after warming up, "
      "%ld–%ld KiB since (drift %.2f%%); %zu time-outs on its console\n",
      serverAlive ? "running" : "GONE", joined, crew, baseline, lowest, highest, drift, timedOut);
  if (flood) {
    std::printf(
        "%zu idle connections held (%zu opened again after the server closed them); "
        "%zu of %zu announcements spoken\n",
        floodSize, reopened, spoken, announced);
  }
  const bool passed = serverAlive && joined == crew && drift < 5.0 && spoken == announced;
  std::puts(passed ? "✅ soak passed" : "❌ soak failed");
  return passed ? 0 : 1;
}
