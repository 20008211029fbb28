// parlavox-client: a crew member on the intercom from the command line. Everything it says goes
// to standard output, one line per message, errors included, as with the server.
#include <fmt/format.h>

#include <atomic>
#include <csignal>
#include <exception>
#include <memory>
#include <string_view>
#include <system_error>
#include <variant>
#include <vector>

#include "client/Arguments.h"
#include "client/AvahiBrowser.h"
#include "client/Commands.h"
#include "client/IntercomClient.h"
#include "platform/Clock.h"
#include "platform/Console.h"
#include "wire/Protocol.h"

namespace {

using namespace std::chrono_literals;
using parlavox::client::Arguments;

constexpr auto kDiscoveryTimeout = 3s;

std::atomic<bool> stopRequested{false};
static_assert(std::atomic<bool>::is_always_lock_free, "set from a signal handler");

extern "C" void requestStop(int /*signal*/) {
  stopRequested.store(true);
}

// Ctrl-C (and a plain kill) only raise the flag: the commands see it within a few tens of
// milliseconds and finish properly, WAV file and "bye" included.
void catchStopSignals() {
  struct sigaction action {};
  action.sa_handler = &requestStop;
  sigemptyset(&action.sa_mask);
  action.sa_flags = 0;  // no SA_RESTART: a waiting poll() wakes up at once
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

struct Server {
  std::string address;
  std::uint16_t port = parlavox::wire::kIntercomPort;
  std::string where;  // for console lines
};

std::optional<Server> findServer(const Arguments& args, parlavox::platform::Console& console) {
  if (args.host) {
    return Server{*args.host, parlavox::wire::kIntercomPort, *args.host};
  }
  const auto service =
      parlavox::client::AvahiBrowser::findFirst(parlavox::wire::kServiceType, kDiscoveryTimeout);
  if (!service) {
    console.error(
        parlavox::platform::EventKind::report,
        fmt::format("❌ No server found: {} (give the server's address: parlavox-client HOST ...)",
                    service.error()));
    return std::nullopt;
  }
  console.info(parlavox::platform::EventKind::report,
               fmt::format("🔎 Found \"{}\" at {} ({}), port {}", service->name, service->host,
                           service->address, service->port));
  return Server{service->address, service->port, fmt::format("\"{}\"", service->name)};
}

int run(int argc, char** argv) {
  parlavox::platform::StdoutConsole::makeLineBuffered();
  parlavox::platform::StdoutConsole console;
  const std::vector<std::string_view> words(argv + 1, argv + argc);
  const auto parsed = parlavox::client::parseArguments(words);
  if (std::holds_alternative<parlavox::client::HelpRequest>(parsed)) {
    console.info(parlavox::platform::EventKind::report, parlavox::client::usageText());
    return 0;
  }
  if (const auto* error = std::get_if<parlavox::client::UsageError>(&parsed)) {
    console.error(parlavox::platform::EventKind::report,
                  fmt::format("❌ {} (see parlavox-client --help)", error->message));
    return 2;
  }
  const auto& args = std::get<Arguments>(parsed);

  // A file that cannot be played is worth knowing before anyone hears us join.
  std::optional<std::vector<std::int16_t>> talkAudio;
  if (args.command == Arguments::Command::talk) {
    talkAudio = parlavox::client::loadTalkAudio(args.in, console);
    if (!talkAudio) {
      return 1;
    }
  }
  const auto server = findServer(args, console);
  if (!server) {
    return 1;
  }
  std::unique_ptr<parlavox::client::IntercomClient> client;
  try {
    client = std::make_unique<parlavox::client::IntercomClient>(server->address, server->port);
  } catch (const std::system_error& e) {
    console.error(parlavox::platform::EventKind::report,
                  fmt::format("❌ Can't reach {}: {}", server->where, e.what()));
    return 1;
  }
  catchStopSignals();
  parlavox::platform::SteadyClock clock;
  parlavox::client::CommandContext context{*client, server->where, console, clock, stopRequested};
  switch (args.command) {
    case Arguments::Command::info:
      return parlavox::client::runInfo(context);
    case Arguments::Command::listen:
      return parlavox::client::runListen(context, args);
    case Arguments::Command::talk:
      return parlavox::client::runTalk(context, args, *talkAudio);
    case Arguments::Command::call:
      return parlavox::client::runCall(context, args);
  }
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& e) {
    // Only allocation failures and the like get here; say so rather than abort.
    parlavox::platform::StdoutConsole().error(parlavox::platform::EventKind::report,
                                              fmt::format("❌ {}", e.what()));
    return 1;
  }
}
