// Advertises one intercom service through AvahiAdvertiser until SIGTERM or SIGINT, then shuts down
// cleanly (so that a sanitizer build also checks the teardown). Used by dnssd-test.sh.
//
//   advertise_probe NAME

#include <csignal>
#include <cstdio>
#include <memory>
#include <string>

#include "platform/AvahiAdvertiser.h"
#include "platform/Console.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fputs("usage: advertise_probe NAME\n", stderr);
    return 2;
  }
  // Block the stop signals before Avahi's thread exists, so that only sigwait() receives them.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGTERM);
  sigaddset(&stopSignals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  parlavox::platform::StdoutConsole::makeLineBuffered();
  parlavox::platform::StdoutConsole console;
  // On the heap, so that no stale copy of its handles on the stack hides a leak from LeakSanitizer.
  auto advertiser = std::make_unique<parlavox::platform::AvahiAdvertiser>(console);
  advertiser->advertise(argv[1], "_intercom._udp", 50505);
  int signal = 0;
  sigwait(&stopSignals, &signal);
  advertiser.reset();
  console.print("advertise_probe: stopped");
  return 0;
}
