// The advertiser's behaviour when no system bus can be reached. Everything that needs a running
// Avahi daemon (registration, the daemon coming and going, collisions) is covered end to end by
// tests/e2e/dnssd-test.sh, which runs its own daemons in a network namespace.

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>

#include "fakes/FakeConsole.h"
#include "platform/AvahiAdvertiser.h"

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
    if (const char* previous =
            std::getenv("DBUS_SYSTEM_BUS_ADDRESS")) {  // NOLINT(concurrency-mt-unsafe)
      previous_ = previous;
    }
    const auto absent = std::filesystem::temp_directory_path() / "parlavox-no-such-dir" / "bus";
    ASSERT_FALSE(std::filesystem::exists(absent.parent_path()));
    const std::string address = "unix:path=" + absent.string();
    setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);  // NOLINT(concurrency-mt-unsafe)
  }
  void TearDown() override {
    if (previous_) {
      setenv("DBUS_SYSTEM_BUS_ADDRESS", previous_->c_str(), 1);  // NOLINT(concurrency-mt-unsafe)
    } else {
      unsetenv("DBUS_SYSTEM_BUS_ADDRESS");  // NOLINT(concurrency-mt-unsafe)
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
    advertiser.advertise("Other", "_intercom._udp", 50506);  // ignored
  }
  // Tearing down while waiting to retry says nothing more.
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
