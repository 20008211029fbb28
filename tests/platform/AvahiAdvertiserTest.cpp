// The advertiser's behaviour when no system bus can be reached. Everything that needs a running
// Avahi daemon (registration, the daemon coming and going, collisions) is covered end to end by
// tests/e2e/dnssd-test.sh, which runs its own daemons in a network namespace.

#include "platform/AvahiAdvertiser.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>

#include "fakes/FakeConsole.h"

namespace parlavox::platform {
namespace {

constexpr const char* kUnavailable =
    "⚠️  Bonjour advertisement unavailable (no Avahi daemon): clients can still connect by "
    "address";

// Points the system bus at a socket that does not exist, for the length of a test.
class AvahiAdvertiserWithoutBus : public ::testing::Test {
 protected:
  void SetUp() override {
    if (const char* previous = std::getenv("DBUS_SYSTEM_BUS_ADDRESS")) {
      previous_ = previous;
    }
    const auto absent = std::filesystem::temp_directory_path() / "parlavox-no-such-dir" / "bus";
    ASSERT_FALSE(std::filesystem::exists(absent.parent_path()));
    setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + absent.string()).c_str(), 1);
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
  std::optional<std::string> previous_;
};

TEST_F(AvahiAdvertiserWithoutBus, WarnsOnceAtOnceAndReturns) {
  {
    AvahiAdvertiser advertiser(console_);
    advertiser.advertise("Parlavox", "_intercom._udp", 50505);
    // The first attempt is made inside advertise(), so the warning is already there.
    EXPECT_EQ(console_.lines(), std::vector<std::string>{kUnavailable});
  }
  // Tearing down while waiting to retry says nothing more.
  EXPECT_EQ(console_.lines(), std::vector<std::string>{kUnavailable});
}

TEST_F(AvahiAdvertiserWithoutBus, LaterCallsAreIgnored) {
  AvahiAdvertiser advertiser(console_);
  advertiser.advertise("Parlavox", "_intercom._udp", 50505);
  advertiser.advertise("Other", "_intercom._udp", 50506);
  EXPECT_EQ(console_.lines(), std::vector<std::string>{kUnavailable});
}

TEST_F(AvahiAdvertiserWithoutBus, UnusedAdvertiserIsSilent) {
  { AvahiAdvertiser advertiser(console_); }
  EXPECT_TRUE(console_.lines().empty());
}

TEST_F(AvahiAdvertiserWithoutBus, ManyAdvertisersComeAndGo) {
  // Each one starts and stops its own Avahi thread; under the sanitizers this catches leaks and
  // races in the teardown.
  for (int i = 0; i < 20; ++i) {
    AvahiAdvertiser advertiser(console_);
    advertiser.advertise("Parlavox", "_intercom._udp", 50505);
  }
  EXPECT_EQ(console_.lines().size(), 20U);
}

}  // namespace
}  // namespace parlavox::platform
