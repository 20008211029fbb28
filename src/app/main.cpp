// parlavox: the intercom server. One optional argument, the roles file; no options.
//
// This file is where the parts meet: the show, the platform's services, the relay and the
// announcements are made here and wired to each other, and nowhere else.
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

#include "announce/Announcements.h"
#include "announce/Announcer.h"
#include "config/RolesFile.h"
#include "config/Show.h"
#include "platform/AsioEventLoop.h"
#include "platform/AvahiAdvertiser.h"
#include "platform/Clock.h"
#include "platform/Console.h"
#include "platform/Interfaces.h"
#include "platform/UdpNetwork.h"
#include "relay/IntercomServer.h"
#include "wire/Protocol.h"

namespace {

using namespace parlavox;

void printReport(const Config& config, platform::Console& console) {
  std::vector<std::string> roles;
  roles.reserve(config.roles.size());
  for (const Role& role : config.roles) {
    roles.push_back(role.name);
  }
  console.print("🎭 " + config.show);
  console.print(fmt::format("   Channels: {}", fmt::join(config.channels, ", ")));
  console.print(fmt::format("   Roles:    {}", fmt::join(roles, ", ")));
  for (const std::string& entry : platform::localIPv4Addresses()) {
    console.print("   Manual connect address: " + entry);
  }
  console.print(fmt::format("   QLab / OSC: point a Network (OSC) cue at this computer, port {},",
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
  const Show show(loadConfig(configPath, console));
  if (show.channels().size() > 32) {
    console.print("❌ Max 32 channels.");
    return 1;
  }

  platform::AsioEventLoop loop;
  platform::UdpNetwork network(loop.context());
  platform::AvahiAdvertiser advertiser(console);
  platform::SteadyClock clock;
  Announcer announcer(defaultSayCommand(), console, clock);
  const auto relay = IntercomServer::create(
      show, ServerPlatform{loop, network, advertiser, clock, console}, endProcess);
  const auto announcements =
      Announcements::create(show, loop, network, console, announcer,
                            [&relay = *relay](std::uint32_t mask, Bytes head, Bytes body) {
                              relay.sendToListeners(mask, head, body);
                            });
  try {
    relay->start(wire::intercomPort);
    announcements->start();
  } catch (const std::exception& error) {
    console.print(fmt::format("❌ Couldn't start: {}", error.what()));
    return 1;
  }
  printReport(show.config(), console);
  // Ctrl-C and systemd's stop end the server cleanly: the loop stops here, and on the way out the
  // announcer kills a speech command still running and deletes its speech file.
  loop.onStopSignals([&loop, &announcer] {
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
    console.print(fmt::format("❌ {}", error.what()));
    endProcess(1);
  }
}
