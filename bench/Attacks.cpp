// parlavox-attack-bench: the attacks the server's limits are for, each against a fresh server in a
// network namespace of its own, with what they cost the crew. Figures only: it exits non-zero
// when the bench itself breaks, never for a figure. `--server PATH` measures another build (with
// parlavox-say beside it), which is how a build from before a change is compared.
//   parlavox-attack-bench [--server PATH] [--connections N] [--joins N] [--nofile N]
#include <fmt/format.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "PrivateNetwork.h"
#include "client/IntercomClient.h"
#include "devkit/ChildProcess.h"
#include "devkit/Flood.h"
#include "devkit/StationSession.h"
#include "devkit/TempDir.h"
#include "wire/Audio.h"
#include "wire/Protocol.h"

namespace {

using namespace parlavox;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

struct Settings {
  std::string server;
  std::size_t connections = 1100;  // past the 1,024 descriptors a terminal gives by default
  std::size_t joins = 500;         // the intercom's whole capacity, from one address
  std::size_t nofile = 1024;
};

// A fresh server in a scratch directory, its descriptors limited to `nofile`.
class Server {
 public:
  Server(const Settings& settings, bool station) {
    std::vector<std::string> args{"--nofile=" + std::to_string(settings.nofile), settings.server};
    process_.emplace("/usr/bin/prlimit", args, directory_.path());
    if (!process_->waitForLine(station ? "   Crew station: https://" : "✅ Listening on UDP")) {
      throw std::runtime_error(settings.server + " did not start");
    }
  }
  devkit::ChildProcess& operator*() { return *process_; }
  devkit::ChildProcess* operator->() { return &*process_; }

 private:
  devkit::TempDir directory_;
  std::optional<devkit::ChildProcess> process_;
};

std::unique_ptr<client::IntercomClient> crew(const std::string& from, const std::string& name,
                                             std::optional<nlohmann::json>* reply = nullptr) {
  auto member = std::make_unique<client::IntercomClient>("127.0.0.1", wire::kIntercomPort, from);
  const auto answer = member->join(name, "Sound");
  if (reply != nullptr) {
    *reply = answer;
  }
  return member;
}

// Audio heard by `listener` until 1 s passes without any, counted by sender id.
std::map<std::uint16_t, std::size_t> heardBy(client::IntercomClient& listener) {
  std::map<std::uint16_t, std::size_t> heard;
  while (const auto audio = listener.nextAudio(1s)) {
    ++heard[audio->senderID];
  }
  return heard;
}

// A talker's `frames` at the pace of speech, the listener keeping alive meanwhile.
void talk(client::IntercomClient& talker, client::IntercomClient& listener, std::size_t frames) {
  const std::vector<std::uint8_t> samples(wire::kFrameBytes, 0x11);
  const auto start = Clock::now();
  for (std::size_t i = 0; i < frames; ++i) {
    talker.sendAudio(0, 0x1, static_cast<std::uint16_t>(i), samples);
    if (i % 50 == 0) {
      listener.sendControl({{"t", "ping"}});
    }
    listener.collect(std::chrono::duration_cast<std::chrono::milliseconds>(
        start + static_cast<long>(i + 1) * wire::kFramePeriod - Clock::now()));
  }
}

void connectionFlood(const Settings& settings) {
  Server server(settings, true);
  auto talker = crew("127.0.0.2", "Talker");
  auto listener = crew("127.0.0.3", "Listener");
  const auto flood =
      std::make_unique<devkit::IdleConnections>(settings.connections, 20, wire::kIntercomPort);
  std::this_thread::sleep_for(1s);
  const double cpu = devkit::cpuShare(server->pid(), 3s);
  talk(*talker, *listener, 100);
  const std::size_t frames = heardBy(*listener)[1];
  (void)devkit::runProgram({"oscsend", "127.0.0.1", "47000", "/parlavox/say", "s", "Places"});
  const std::size_t announced = heardBy(*listener)[wire::announcerID];
  std::printf(
      "connections: %zu idle from 20 addresses, descriptors limited to %zu: server CPU %.0f%%; "
      "%zu of 100 frames heard; %zu announcement frames heard; %zu \"Couldn't\" lines\n",
      settings.connections, settings.nofile, cpu * 100, frames, announced,
      server->count("Couldn't"));
}

void joinFlood(const Settings& settings) {
  Server server(settings, false);
  std::vector<std::unique_ptr<client::IntercomClient>> bots;
  std::size_t joined = 0;
  for (std::size_t i = 0; i < settings.joins; ++i) {
    std::optional<nlohmann::json> reply;
    bots.push_back(crew("127.0.0.9", fmt::format("Bot {}", i), &reply));
    joined += reply && (*reply)["t"] == "welcome" ? 1U : 0U;
    std::this_thread::sleep_for(125ms);  // the joins' rate per address
    if (i % 40 == 0) {
      for (const auto& bot : bots) {
        bot->sendControl({{"t", "ping"}});
      }
    }
  }
  std::optional<nlohmann::json> reply;
  const auto member = crew("127.0.0.2", "Real crew", &reply);
  std::printf("joins: %zu from one address, 8 a second: %zu joined; crew from another: %s\n",
              settings.joins, joined, reply ? (*reply)["t"].get<std::string>().c_str() : "nothing");
}

void audioFlood(const Settings& settings) {
  Server server(settings, false);
  auto talker = crew("127.0.0.2", "Talker");
  auto flooder = crew("127.0.0.3", "Flooder");
  auto listener = crew("127.0.0.4", "Listener");
  std::atomic<double> seconds = 0;
  std::thread flood([&] {
    const std::vector<std::uint8_t> samples(wire::kFrameBytes, 0x22);
    std::this_thread::sleep_for(500ms);
    const auto start = Clock::now();
    for (std::uint32_t i = 0; i < 60'000; ++i) {
      flooder->sendAudio(0, 0x1, static_cast<std::uint16_t>(i), samples);
    }
    seconds = std::chrono::duration<double>(Clock::now() - start).count();
  });
  talk(*talker, *listener, 100);
  flood.join();
  auto heard = heardBy(*listener);
  std::printf(
      "audio: 60,000 datagrams from one talker in %.2f s: %zu copies relayed to a "
      "listener, whose other talker's frames were %zu of 100 heard\n",
      seconds.load(), heard[2], heard[1]);
}

void silentSocket(const Settings& settings) {
  Server server(settings, true);
  boost::asio::io_context io;
  boost::asio::ssl::context tls(boost::asio::ssl::context::tls_client);
  devkit::StationSession session(io, tls, "127.0.0.1", wire::kIntercomPort);
  const auto opened = Clock::now();
  std::optional<double> ended;
  session.start([](auto) {},
                [&] { ended = std::chrono::duration<double>(Clock::now() - opened).count(); });
  io.run_for(40s);
  std::printf("silent WebSocket at /intercom: %s\n",
              ended ? fmt::format("ended after {:.1f} s", *ended).c_str() : "open after 40 s");
}

}  // namespace

int main(int argc, char** argv) {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  Settings settings;
  const auto self = std::filesystem::read_symlink("/proc/self/exe");
  settings.server = (self.parent_path() / "parlavox").string();
  const std::vector<std::string> args(argv + 1, argv + argc);
  for (std::size_t i = 0; i + 1 < args.size(); i += 2) {
    if (args[i] == "--server") {
      settings.server = std::filesystem::absolute(args[i + 1]).string();
    } else if (args[i] == "--connections") {
      settings.connections = std::stoul(args[i + 1]);
    } else if (args[i] == "--joins") {
      settings.joins = std::stoul(args[i + 1]);
    } else if (args[i] == "--nofile") {
      settings.nofile = std::stoul(args[i + 1]);
    } else {
      std::fputs(
          "usage: parlavox-attack-bench [--server PATH] [--connections N] [--joins N] "
          "[--nofile N]\n",
          stderr);
      return 2;
    }
  }
  if (const std::string error = bench::enterPrivateNetwork(); !error.empty()) {
    std::fprintf(stderr, "parlavox-attack-bench: no network namespace of its own: %s\n",
                 error.c_str());
    return 1;
  }
  try {
    for (const auto attack : {connectionFlood, joinFlood, audioFlood, silentSocket}) {
      attack(settings);
    }
  } catch (const std::exception& error) {
    std::fprintf(stderr, "parlavox-attack-bench: %s\n", error.what());
    return 1;
  }
  return 0;
}
