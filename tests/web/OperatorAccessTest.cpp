// The operator's gate against guessing from many hosts at once: the slow check runs on the loop
// that relays the crew's audio, so how often it runs is bounded whoever asks.
#include <gtest/gtest.h>

#include "fakes/FakeClock.h"
#include "fakes/FakeConsole.h"
#include "fakes/FakePasswordStore.h"
#include "platform/PasswordHash.h"
#include "web/OperatorAccess.h"

namespace parlavox::web {
namespace {

std::string basic(const std::string& credentials) {
  return "Basic " + platform::encodeBase64(credentials);
}

TEST(OperatorAccess, ChecksStayFewHoweverManyHostsGuess) {
  test::FakePasswordStore store;
  store.keep("right one");
  test::FakeClock clock;
  test::FakeConsole console;
  OperatorAccess access(store, clock, console);
  // A guess from each of 40 hosts at once, then as many a second later.
  const auto guess = [&](int round) {
    int refused = 0;
    for (std::uint8_t host = 0; host < 40; ++host) {
      platform::HttpRequest request;
      request.from.bytes[15] = host;
      const std::string authorization = basic("x:guess " + std::to_string(round * 100 + host));
      request.authorization = authorization;
      refused += access.check(request)->status == 429 ? 1 : 0;
    }
    return refused;
  };
  EXPECT_EQ(guess(0), 30);
  EXPECT_EQ(store.checks, 10);
  clock.advance(std::chrono::seconds(1));
  EXPECT_EQ(guess(1), 36);
  EXPECT_EQ(store.checks, 14);
}

}  // namespace
}  // namespace parlavox::web
