// What the end-to-end tests cannot wait for: a session's day ending, and wrong tries coming back.
#include <gtest/gtest.h>

#include "fakes/FakeClock.h"
#include "fakes/FakeConsole.h"
#include "web/CrewAccess.h"

namespace parlavox::web {
namespace {

TEST(CrewAccess, ASessionLastsADayAndAWrongTryComesBackEveryTwelveSeconds) {
  test::FakeClock clock;
  test::FakeConsole console;
  std::int64_t wall = 1'800'000'000;
  CrewAccess access(
      "4711", "key", clock, [&wall] { return wall; }, console);
  const auto post = [&access](std::string_view body, std::string_view cookie = {}) {
    return access.post({"POST", "/pin", {}, body, cookie, {}});
  };
  const std::string set = post("4711").headers.at(0).second;
  const std::string cookie = set.substr(0, set.find(';'));
  wall += CrewAccess::kSessionSeconds - 1;
  EXPECT_EQ(post("", cookie).status, 204U);
  EXPECT_EQ(post("", cookie.substr(0, cookie.size() - 1) + "x").status, 401U) << "forged";
  wall += 1;
  EXPECT_EQ(post("", cookie).status, 401U);
  for (const char* guess : {"1", "2", "3", "4", "5", "4711"}) {
    EXPECT_EQ(post(guess).status, guess[1] ? 429U : 403U);
  }
  clock.advance(std::chrono::seconds(12));
  EXPECT_EQ(post("6").status, 403U) << "one back";
  EXPECT_EQ(post("4711").status, 429U);
}

}  // namespace
}  // namespace parlavox::web
