// The advertiser's behaviour when no system bus can be reached. Everything that needs a running
// Avahi daemon (registration, the daemon coming and going, collisions) is covered end to end by
// tests/e2e/dnssd-test.sh, which runs its own daemons in a network namespace.

#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <string>

#include "fakes/FakeConsole.h"
#include "platform/AvahiAdvertiser.h"
#include "support/TempDir.h"

namespace parlavox::platform {
namespace {

constexpr const char* kUnavailable =
    "⚠️  Bonjour advertisement unavailable (no Avahi daemon): clients can still connect by "
    "address";

// Points the system bus at a socket that does not exist, for the length of a test. The environment
// is changed only while no Avahi thread runs: each test's advertisers are gone before TearDown().
class AvahiAdvertiserWithoutBus : public ::testing::Test {
 protected:
  void SetUp() override {
    if (const char* previous = std::getenv("DBUS_SYSTEM_BUS_ADDRESS")) {
      previous_ = previous;
    }
    const std::string address = "unix:path=" + (dir_ / "no-bus");
    setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
  }
  void TearDown() override {
    if (previous_) {
      setenv("DBUS_SYSTEM_BUS_ADDRESS", previous_->c_str(), 1);
    } else {
      unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
    }
  }

  test::FakeConsole console_;

 private:
  test::TempDir dir_;
  std::optional<std::string> previous_;
};

TEST_F(AvahiAdvertiserWithoutBus, WarnsOnceAtOnceAndReturns) {
  { AvahiAdvertiser unused(console_); }
  EXPECT_TRUE(console_.lines().empty()) << "an advertiser that advertises nothing is silent";
  {
    AvahiAdvertiser advertiser(console_);
    advertiser.advertise("Parlavox", "_intercom._udp", 50505);
    // The first attempt is made inside advertise(), so the warning is already there.
    EXPECT_EQ(console_.take(), std::vector<std::string>{kUnavailable});
    advertiser.advertise("Other", "_intercom._udp", 50506);  // ignored
  }
  EXPECT_TRUE(console_.lines().empty()) << "tearing down while waiting to retry says nothing";
  // Each one starts and stops its own Avahi thread; under the sanitizers this catches leaks and
  // races in the teardown.
  for (int i = 0; i < 20; ++i) {
    AvahiAdvertiser advertiser(console_);
    advertiser.advertise("Parlavox", "_intercom._udp", 50505);
  }
  EXPECT_EQ(console_.lines(), std::vector<std::string>(20, kUnavailable));
}

}  // namespace
}  // namespace parlavox::platform
