// parlavox: the intercom server. One optional argument, the roles file; no options.
#include <fmt/format.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

#include "announce/Announcer.h"
#include "config/Config.h"
#include "config/Protocol.h"
#include "config/RolesFile.h"
#include "platform/AsioEventLoop.h"
#include "platform/AvahiAdvertiser.h"
#include "platform/Clock.h"
#include "platform/Console.h"
#include "platform/Interfaces.h"
#include "platform/UdpNetwork.h"
#include "relay/IntercomServer.h"

namespace {

using namespace parlavox;

std::string joined(const std::vector<std::string>& items) {
  return fmt::format("{}", fmt::join(items, ", "));
}

void printReport(const Config& config, platform::Console& console) {
  std::vector<std::string> roles;
  roles.reserve(config.roles.size());
  for (const Role& role : config.roles) {
    roles.push_back(role.name);
  }
  console.print("🎭 " + config.show);
  console.print("   Channels: " + joined(config.channels));
  console.print("   Roles:    " + joined(roles));
  for (const std::string& entry : platform::localIPv4Addresses()) {
    console.print("   Manual connect address: " + entry);
  }
  console.print(fmt::format("   QLab / OSC: point a Network (OSC) cue at this Mac, port {},",
                            config.oscPort));
  console.print("               address /parlavox/say with a string argument to announce.");
  console.print("   Press Ctrl-C to stop.\n");
}

// Ends the process from any thread without running destructors under the announcer's feet.
[[noreturn]] void endProcess(int status) {
  std::fflush(stdout);
  std::_Exit(status);
}

int run(int argc, char** argv, platform::Console& console) {
  const std::string configPath = argc >= 2 ? argv[1] : "roles.json";
  const Config config = loadConfig(configPath, console);
  if (config.channels.size() > 32) {
    console.print("❌ Max 32 channels.");
    return 1;
  }

  platform::AsioEventLoop loop;
  platform::UdpNetwork network(loop.context());
  platform::AvahiAdvertiser advertiser(console);
  platform::SteadyClock clock;
  const auto server = IntercomServer::create(config, ServerPlatform{
                                                         .loop = loop,
                                                         .network = network,
                                                         .advertiser = advertiser,
                                                         .clock = clock,
                                                         .console = console,
                                                         .sayCommand = defaultSayCommand(),
                                                         .exit = endProcess,
                                                     });
  try {
    server->start(protocol::intercomPort);
  } catch (const std::exception& error) {
    console.print(fmt::format("❌ Couldn't start: {}", error.what()));
    return 1;
  }
  printReport(config, console);
  loop.run();  // for good: the process ends when it is killed or the listener fails
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
    console.print(fmt::format("❌ {}", error.what()));
    endProcess(1);
  }
}
