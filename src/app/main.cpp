// parlavox: the intercom server. One optional argument, the roles file; --operator-password,
// --help and --version.
//
// This file is where the parts meet: the show, the platform's services, the relay and the
// announcements are made here and wired to each other, and nowhere else.
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "announce/Announcements.h"
#include "announce/Announcer.h"
#include "config/RolesFile.h"
#include "config/Show.h"
#include "monitor/EventLog.h"
#include "monitor/Monitor.h"
#include "monitor/ShowLog.h"
#include "platform/AsioEventLoop.h"
#include "platform/AvahiAdvertiser.h"
#include "platform/Clock.h"
#include "platform/Console.h"
#include "platform/HttpsServer.h"
#include "platform/Interfaces.h"
#include "platform/LogDirectory.h"
#include "platform/PasswordFile.h"
#include "platform/PasswordHash.h"
#include "platform/QrCode.h"
#include "platform/SystemdNotifier.h"
#include "platform/Terminal.h"
#include "platform/TlsIdentity.h"
#include "platform/UdpNetwork.h"
#include "relay/IntercomServer.h"
#include "web/CrewAccess.h"
#include "web/Feed.h"
#include "web/OperatorAccess.h"
#include "web/OperatorActions.h"
#include "web/Paths.h"
#include "web/Routes.h"
#include "web/WebPeers.h"
#include "wire/Protocol.h"

namespace {

using namespace parlavox;

// The crew station's address for a host, as a browser wants it.
std::string stationAddress(std::string_view host) {
  return fmt::format("https://{}:{}/", host, wire::kIntercomPort);
}

// What stands before the monitor and the metrics, for the report.
std::string operatorLine(web::OperatorAccess::State state) {
  switch (state) {
    case web::OperatorAccess::State::open:
      return "   Monitor open: no operator password (parlavox --operator-password sets one)";
    case web::OperatorAccess::State::guarded:
      return "   Monitor: operator password required";
    case web::OperatorAccess::State::unusable:
      break;
  }
  return "   Monitor closed: the operator password cannot be read";
}

void printReport(const Config& config, const platform::TlsIdentity* station,
                 web::OperatorAccess::State operatorAccess, bool service,
                 platform::Console& console) {
  std::vector<std::string> roles;
  roles.reserve(config.roles.size());
  for (const Role& role : config.roles) {
    roles.push_back(role.name);
  }
  console.info(platform::EventKind::report, "🎭 " + config.show);
  console.info(platform::EventKind::report,
               fmt::format("   Channels: {}", fmt::join(config.channels, ", ")));
  console.info(platform::EventKind::report, fmt::format("   Roles:    {}", fmt::join(roles, ", ")));
  if (!config.crewNetworks.empty()) {
    std::vector<std::string> networks;
    for (const Subnet& network : config.crewNetworks) {
      networks.push_back(network.text);
    }
    console.info(
        platform::EventKind::report,
        fmt::format("   Crew only from: {} (and this computer)", fmt::join(networks, ", ")));
  }
  const std::vector<platform::LocalAddress> addresses = platform::localIPv4Addresses();
  for (const platform::LocalAddress& entry : addresses) {
    console.info(platform::EventKind::report, fmt::format("   Manual connect address: {}  ({})",
                                                          entry.address, entry.interface));
  }
  if (station != nullptr) {
    for (const platform::LocalAddress& entry : addresses) {
      console.info(
          platform::EventKind::report,
          fmt::format("   Crew station: {}  ({})", stationAddress(entry.address), entry.interface));
    }
    if (addresses.empty()) {
      console.info(platform::EventKind::report,
                   "   Crew station: " + stationAddress(platform::hostName() + ".local"));
    }
    console.info(platform::EventKind::report, "   Certificate SHA-256: " + station->fingerprint);
    if (!station->authorityFingerprint.empty()) {
      console.info(platform::EventKind::report,
                   "   Certificate authority SHA-256: " + station->authorityFingerprint);
      console.info(
          platform::EventKind::report,
          fmt::format("   Trust once: http://{}:{}/trust",
                      addresses.empty() ? platform::hostName() + ".local" : addresses[0].address,
                      wire::kIntercomPort));
    }
    if (!config.crewPin.empty()) {
      console.info(platform::EventKind::report, "   The station asks for the crew PIN.");
    }
    console.info(platform::EventKind::report, operatorLine(operatorAccess));
    // A phone's camera is the quickest way to the first address; the journal has no use for it.
    if (!service && !addresses.empty() && isatty(STDOUT_FILENO) == 1) {
      for (const std::string& line :
           platform::terminalQrCode(stationAddress(addresses[0].address))) {
        console.info(platform::EventKind::report, "   " + line);
      }
    }
  }
  console.info(platform::EventKind::report,
               fmt::format("   QLab / OSC: point a Network (OSC) cue at this computer, port {},",
                           config.oscPort));
  console.info(platform::EventKind::report,
               "               address /parlavox/say with a string argument to announce.");
  // In a terminal a blank line sets the report apart; in the journal it would be an empty entry.
  console.info(platform::EventKind::report,
               service ? "   Stop it with: systemctl stop parlavox" : "   Press Ctrl-C to stop.\n");
}

std::string crewStatus(CrewCount crew) {
  return fmt::format("{} crew joined, {} talking", crew.joined, crew.talking);
}

// Loop thread, once the intercom port answers. Under systemd: ready, the crew in `systemctl
// status`, and the watchdog fed from the loop itself, so that a wedged loop gets the process
// restarted.
void reportToSystemd(const platform::SystemdNotifier& systemd, platform::EventLoop& loop,
                     const IntercomServer& relay) {
  if (!systemd.active()) {
    return;
  }
  auto shown = std::make_shared<std::string>(crewStatus(relay.crew()));
  systemd.notify("READY=1\nSTATUS=" + *shown);
  loop.every(std::chrono::seconds(1), [&systemd, &relay, shown] {
    if (std::string status = crewStatus(relay.crew()); status != *shown) {
      *shown = std::move(status);
      systemd.notify("STATUS=" + *shown);
    }
  });
  if (const auto interval = systemd.watchdogInterval()) {
    loop.every(*interval, [&systemd] { systemd.notify("WATCHDOG=1"); });
  }
}

// Where the service manager gave the server a state directory, which is all it may write to.
std::string stateDirectory() {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): nothing here sets the environment
  const char* directory = std::getenv("STATE_DIRECTORY");
  return directory != nullptr ? directory : "";
}

// Where the server keeps what it makes for itself (the certificate, the operator's password): the
// state directory under systemd, else beside the roles file.
std::string ownDirectory(const std::string& configPath, const std::string& state) {
  const std::string directory =
      !state.empty() ? state : std::filesystem::path(configPath).parent_path().string();
  return directory.empty() ? "." : directory;
}

// How a password given to --operator-password counts its length: in characters, not bytes.
constexpr std::size_t kShortestPassword = 8;
constexpr std::size_t kLongestPassword = 1024;

std::size_t characters(std::string_view text) {
  return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0U) != 0x80U;
  }));
}

// parlavox --operator-password: the new password from the terminal, unechoed and asked twice, or
// one line of standard input when that is not a terminal (over ssh, from a password manager);
// only its hash is kept. The running server reads it within a second.
int setOperatorPassword(const std::string& configPath, platform::Console& terminal) {
  const auto fail = [&terminal](std::string_view why) {
    terminal.error(platform::EventKind::service, fmt::format("❌ {}", why));
    return 1;
  };
  platform::Result<std::string> password = std::string();
  if (platform::inputIsTerminal()) {
    password = platform::readHiddenLine("New operator password: ");
    if (password) {
      const auto again = platform::readHiddenLine("The same again: ");
      if (!again) {
        return fail("Couldn't read the password: " + again.error());
      }
      if (*again != *password) {
        return fail("The two passwords differ: nothing changed.");
      }
    }
  } else {
    password = platform::readInputLine(kLongestPassword);
  }
  if (!password) {
    return fail("Couldn't read the password: " + password.error());
  }
  if (characters(*password) < kShortestPassword) {
    return fail(fmt::format("An operator password has at least {} characters: nothing changed.",
                            kShortestPassword));
  }
  const auto hash = platform::hashPassword(*password);
  if (!hash) {
    return fail("Couldn't hash the password: " + hash.error());
  }
  // Said in full where it was stored, so the operator sees which server will read it.
  std::error_code unknown;
  const std::string path =
      std::filesystem::absolute(std::filesystem::path(ownDirectory(configPath, stateDirectory())) /
                                    web::OperatorAccess::kFileName,
                                unknown)
          .lexically_normal()
          .string();
  if (auto stored = platform::PasswordFile::store(path, *hash); !stored) {
    return fail(fmt::format("Couldn't write {}: {}", path, stored.error()));
  }
  terminal.info(platform::EventKind::service,
                fmt::format("🔑 Operator password stored (its hash only) in {}", path));
  return 0;
}

constexpr auto kMonitorPeriod = std::chrono::milliseconds(500);

// What the crew station knows of the show beyond the intercom's messages: its name, for the lock
// screen and the tab, and whether it must ask for the crew PIN (never the PIN itself).
std::string stationInfo(const Show& show) {
  return nlohmann::json{{"show", show.name()}, {"pin", !show.config().crewPin.empty()}}.dump(
      -1, ' ', false, nlohmann::json::error_handler_t::replace);
}

// The names and addresses a browser may reach the station by.
platform::TlsNames stationNames() {
  platform::TlsNames names{.dns = {"localhost"}, .ipv4 = {"127.0.0.1"}};
  if (const std::string host = platform::hostName(); !host.empty()) {
    names.dns.push_back(host);
    names.dns.push_back(host + ".local");
  }
  for (const platform::LocalAddress& entry : platform::localIPv4Addresses()) {
    names.ipv4.push_back(entry.address);
  }
  return names;
}

// Every name and address in `names`.
std::vector<std::string> allOf(const platform::TlsNames& names) {
  std::vector<std::string> all = names.dns;
  all.insert(all.end(), names.ipv4.begin(), names.ipv4.end());
  return all;
}

// The crew station's certificate, kept in `directory` (beside the roles file, or the state
// directory under systemd) with the authority that issues it, and issued again when `names` are
// new to it. A failure as the error.
platform::Result<platform::TlsIdentity> stationIdentity(const std::string& directory,
                                                        const platform::TlsNames& names,
                                                        platform::Console& console) {
  auto identity = platform::loadOrCreateTlsIdentity(directory, names);
  if (identity && identity->issued) {
    console.info(platform::EventKind::service,
                 fmt::format("🔐 Station certificate issued for {}", fmt::join(allOf(names), ", ")));
  }
  return identity;
}

// How often the host's names and addresses are looked at: a laptop that moves to the venue's
// network has its certificate for the new address within this, with nothing new to trust.
constexpr auto kNamesCheckPeriod = std::chrono::seconds(10);

// Loop thread. Keeps the station's certificate, and the pages' policy of where they may connect,
// covering the host's names and addresses while it runs; connections already open keep theirs.
void keepCertificateCurrent(platform::EventLoop& loop, platform::HttpsServer& station,
                            web::Routes& routes, std::string directory, platform::TlsNames names,
                            platform::Console& console) {
  auto current = std::make_shared<platform::TlsNames>(std::move(names));
  loop.every(kNamesCheckPeriod, [&station, &routes, &console, directory = std::move(directory),
                                 current] {
    platform::TlsNames now = stationNames();
    if (now == *current) {
      return;
    }
    *current = std::move(now);
    routes.setOwnHosts(allOf(*current));
    auto identity = stationIdentity(directory, *current, console);
    auto presented = identity ? station.present(*identity) : platform::Result<void>();
    if (!identity || !presented) {
      console.warning(platform::EventKind::service,
                      fmt::format("⚠️  Crew station: no certificate for the new addresses: {}",
                                  !identity ? identity.error() : presented.error()));
    }
  });
}

// The crew station, the monitor and the metrics, on the TCP port of the intercom's number.
// Nothing when the port cannot be had: the intercom itself never depends on it.
std::unique_ptr<platform::HttpsServer> openStation(boost::asio::io_context& context,
                                                   const platform::TlsIdentity& identity,
                                                   web::Routes& routes, platform::Clock& clock,
                                                   const IntercomServer& relay,
                                                   platform::Console& console) {
  try {
    auto station = std::make_unique<platform::HttpsServer>(context, wire::kIntercomPort, identity,
                                                           routes, clock);
    if (const std::size_t total = station->limits().total;
        total < platform::HttpsServer::kConnectionLimit) {
      console.warning(
          platform::EventKind::service,
          fmt::format("⚠️  Crew station: file descriptors for only {} connections (of "
                      "{}): raise the limit (ulimit -n; LimitNOFILE for the service)",
                      total, platform::HttpsServer::kConnectionLimit));
    }
    // The crew's networks, less the addresses the operator refused.
    station->admitOnly([&relay](const platform::HostAddress& host) { return relay.admits(host); });
    station->start();
    return station;
  } catch (const std::exception& error) {
    console.warning(platform::EventKind::service,
                    fmt::format("⚠️  Crew station unavailable: TCP port {}: {}",
                                wire::kIntercomPort, error.what()));
    return nullptr;
  }
}

// How often the show's log looks at the date: a new day's file within this of midnight.
constexpr auto kShowLogTick = std::chrono::minutes(1);

// The day's show log, downloaded as a file named for its day. Never open to all: it names the
// crew.
web::Routes::Download logDownload(const ShowLog& log, const web::OperatorAccess& access,
                                  bool json) {
  return {[&log, &access, json] {
    if (auto refused = access.refuseWhileOpen()) {
      return std::move(*refused);
    }
    const std::vector<ShowLog::Entry> entries = log.entries();
    std::string name = ShowLog::fileName(log.day());
    if (json) {
      name.replace(name.rfind('.'), std::string::npos, ".json");
    }
    return platform::HttpResponse{
        200,
        json ? "application/json; charset=utf-8" : "text/csv; charset=utf-8; header=present",
        json ? ShowLog::json(entries) : ShowLog::csv(entries),
        {{"Content-Disposition", fmt::format("attachment; filename=\"{}\"", name)}}};
  }};
}

constexpr const char* kUsage = R"(usage: parlavox [ROLES_FILE]
       parlavox --operator-password [ROLES_FILE]
       parlavox --help | --version

The intercom server for a theatre crew: UDP port 50505 for crew devices, the crew station and
the operator's monitor over HTTPS on TCP port 50505, OSC announcements on the roles file's
oscPort (47000 unless it says otherwise).

  ROLES_FILE  the show: its channels and roles (default: roles.json here, written with the
              built-in show when there is none)
  --operator-password
              set the password the monitor, /metrics and the operator's actions (which
              are refused without one) ask for (any user name): read from
              the terminal, or one line of standard input; its hash is kept in
              parlavox-operator, where the certificate is, and a running server takes it up

Environment:
  STATE_DIRECTORY  a directory of the server's own (systemd sets it for the service:
                   /var/lib/parlavox): its roles.json stands in when there is nothing at
                   ROLES_FILE, and the certificate and the show's log are kept there
  PARLAVOX_VOICE   the voice parlavox-say speaks announcements in ("fr", "en-us"); else the
                   locale's language (LC_ALL, LC_MESSAGES, LANG), else English

The server's certificate authority, parlavox-ca.pem and parlavox-ca-key.pem, is made on the first
start and kept beside the roles file, or in STATE_DIRECTORY; each device trusts it once, at
http://HOST:50505/trust. It issues the crew station's certificate, parlavox-cert.pem and
parlavox-key.pem, again whenever the computer's names or addresses change. An operator's own
certificate and key in their place are used as they are. Without parlavox-operator there, the
monitor and the metrics are open to anyone on the network. The show's log, one file a day
(parlavox-log-YYYY-MM-DD.csv, the last 14 kept, 16 MiB each at most), is kept there too; the
day's is downloaded from /operator/log.csv and /operator/log.json with the operator password.)";

// Ends the process from any thread without running destructors under the announcer's feet.
[[noreturn]] void endProcess(int status) {
  std::fflush(stdout);
  std::_Exit(status);
}

int run(int argc, char** argv, platform::Console& terminal) {
  const std::string_view first = argc >= 2 ? argv[1] : "";
  if (first == "--help" || first == "-h") {
    terminal.info(platform::EventKind::report, kUsage);
    return 0;
  }
  if (first == "--version") {
    terminal.info(platform::EventKind::report, fmt::format("parlavox {}", PARLAVOX_VERSION));
    return 0;
  }
  if (first == "--operator-password") {
    return setOperatorPassword(argc >= 3 ? argv[2] : "roles.json", terminal);
  }
  const std::string configPath = argc >= 2 ? argv[1] : "roles.json";
  const std::string state = stateDirectory();
  std::optional<Config> config = loadConfig(configPath, terminal, state);
  if (!config) {
    return 1;  // a crew PIN or networks the file could not give: not open to all instead
  }
  const Show show(std::move(*config));
  if (show.channels().size() > kChannelLimit) {
    terminal.error(platform::EventKind::service, fmt::format("❌ Max {} channels.", kChannelLimit));
    return 1;
  }

  platform::SteadyClock clock;
  const std::string directory = ownDirectory(configPath, state);
  platform::LogDirectory logFiles(directory);
  // From here on the monitor's log sees what the operator sees, and the show's log keeps it.
  EventLog eventLog(terminal, clock);
  ShowLog console(eventLog, logFiles, platform::localWallTime, ShowLog::Limits{});
  platform::AsioEventLoop loop;
  platform::UdpNetwork network(loop.context());
  platform::AvahiAdvertiser advertiser(console);
  const platform::SystemdNotifier systemd;
  Announcer announcer(defaultSayCommand(), console, clock);
  const auto relay =
      IntercomServer::create(show, ServerPlatform{loop, advertiser, clock, console}, endProcess);
  const auto announcements =
      Announcements::create(show, loop, network, console, clock, announcer, *relay);
  relay->setChimeCallback(
      [&announcements = *announcements](std::uint16_t caller, std::uint32_t mask) {
        announcements.ringChime(caller, mask);
      });
  std::unique_ptr<platform::PeerListener> intercom;
  try {
    intercom = network.listenPeers(wire::kIntercomPort);
    relay->start(*intercom,
                 [&systemd, &loop, &relay = *relay] { reportToSystemd(systemd, loop, relay); });
    announcements->start();
  } catch (const std::exception& error) {
    console.error(platform::EventKind::service, fmt::format("❌ Couldn't start: {}", error.what()));
    return 1;
  }

  Monitor monitor(show, *relay, *announcements, eventLog, clock);
  web::WebPeers browsers(*relay);
  web::Feed monitorFeed;
  loop.every(kShowLogTick, [&console] { console.tick(); });
  platform::PasswordFile operatorPassword(
      (std::filesystem::path(directory) / web::OperatorAccess::kFileName).string());
  web::OperatorAccess operatorAccess(operatorPassword, clock, console);
  // A password set or changed with --operator-password while the server runs: a stat a second.
  // Monitors open until then must give it too.
  loop.every(std::chrono::seconds(1), [&operatorAccess, &monitorFeed] {
    if (operatorAccess.refresh()) {
      monitorFeed.closeAll();
    }
  });
  const platform::TlsNames names = stationNames();
  auto identity = stationIdentity(directory, names, console);
  if (!identity) {
    console.warning(platform::EventKind::service,
                    fmt::format("⚠️  Crew station unavailable: certificate in {}: {}",
                                directory, identity.error()));
  }
  // Crew sessions are signed with the identity's secret: they outlive restarts and new addresses.
  std::optional<web::CrewAccess> crewAccess;
  std::vector<std::pair<std::string, web::Routes::Action>> actions;
  web::Gate crewGate;
  if (identity && !show.config().crewPin.empty()) {
    crewAccess.emplace(show.config().crewPin, identity->secret, clock, platform::unixSeconds,
                       console);
    actions.emplace_back(web::kCrewPin,
                         web::Routes::Action{[&crewAccess](const platform::HttpRequest& request) {
                                               return crewAccess->post(request);
                                             },
                                             false});
    crewGate = [&crewAccess](const platform::HttpRequest& request) {
      return crewAccess->gate(request);
    };
  }
  web::OperatorActions operatorActions(*announcements, *relay, operatorAccess, console);
  for (auto& action : operatorActions.actions()) {
    actions.push_back(std::move(action));
  }
  web::Routes routes({.crew = browsers,
                      .monitorFeed = monitorFeed,
                      .metrics = {"text/plain; version=0.0.4; charset=utf-8",
                                  [&monitor] { return monitor.metrics(); }},
                      .stationInfo = {"application/json; charset=utf-8",
                                      [info = stationInfo(show)] { return info; }},
                      .ownHosts = allOf(names),
                      .actions = std::move(actions),
                      .operatorDownloads = {{std::string(web::kLogCsv),
                                             logDownload(console, operatorAccess, false)},
                                            {std::string(web::kLogJson),
                                             logDownload(console, operatorAccess, true)}},
                      .crewGate = std::move(crewGate),
                      .operatorGate =
                          [&operatorAccess](const platform::HttpRequest& request) {
                            return operatorAccess.check(request);
                          },
                      .authorityDer = identity ? identity->authorityDer : "",
                      .authorityFingerprint = identity ? identity->authorityFingerprint : ""});
  const auto station =
      identity ? openStation(loop.context(), *identity, routes, clock, *relay, console) : nullptr;
  if (station && !identity->authorityDer.empty()) {
    keepCertificateCurrent(loop, *station, routes, directory, names, console);
  }
  if (station) {
    loop.every(kMonitorPeriod, [&monitor, &monitorFeed] {
      if (monitorFeed.hasReaders()) {
        monitorFeed.publish(monitor.snapshot());
      }
    });
  }
  printReport(show.config(), station ? &*identity : nullptr, operatorAccess.state(),
              systemd.active(), console);
  // Ctrl-C and systemd's stop end the server cleanly: the loop stops here, and on the way out the
  // announcer kills a speech command still running and deletes its speech file.
  loop.onStopSignals([&loop, &announcer, &systemd] {
    systemd.notify("STOPPING=1");
    announcer.stop();
    loop.stop();
  });
  loop.run();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  platform::StdoutConsole::makeLineBuffered();
  platform::StdoutConsole console;
  try {
    return run(argc, argv, console);
  } catch (const std::exception& error) {
    // Not expected: every failure the server knows of is handled where it happens.
    console.error(platform::EventKind::service, fmt::format("❌ {}", error.what()));
    endProcess(1);
  }
}
