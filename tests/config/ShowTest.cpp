#include <gtest/gtest.h>

#include "config/Show.h"

namespace parlavox {
namespace {

// A role's masks are worked out at load; its unknown channels are kept for the join to report.
TEST(Show, WorksOutEachRolesMasks) {
  std::vector<std::string> channels{"Main", "Tech", "Backstage", "Main", "R\xC3\xA9gie"};
  for (int i = 5; i < 34; ++i) {
    channels.push_back("ch" + std::to_string(i));
  }
  const Show show(
      Config{"S",
             channels,
             {{"A", {"Tech", "Tech", "Main", "Re\xCC\x81gie"}, {"ch31", "ch32", "main"}},
              {"B", {}, {"Foyer", "Backstage", "Foyer"}}}});
  const RoleRights* a = show.findRole("A");
  ASSERT_NE(a, nullptr);
  EXPECT_EQ(a->talkMask, 0x13U) << "a name twice, a channel listed twice, a canonical spelling";
  EXPECT_EQ(a->listenMask, 0x80000000U) << "no bit from the 33rd channel on";
  EXPECT_EQ(a->unknownChannels, std::vector<std::string>{"main"});
  EXPECT_EQ(show.findRole("B")->listenMask, 0x4U);
  EXPECT_EQ(show.findRole("B")->unknownChannels, (std::vector<std::string>{"Foyer", "Foyer"}));
  EXPECT_EQ(show.findRole("a"), nullptr);
}

}  // namespace
}  // namespace parlavox
