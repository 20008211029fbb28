#include <gtest/gtest.h>

#include "config/Show.h"

namespace parlavox {
namespace {

TEST(Show, WorksOutEachRolesMasksAndKeepsItsUnknownChannels) {
  struct Case {
    const char* what;
    std::vector<std::string> names;
    std::uint32_t mask;
    std::vector<std::string> unknown;
  };
  const Case cases[] = {
      {"two channels", {"Main", "Tech"}, 0x3, {}},
      {"one further up", {"Green Room"}, 0x8, {}},
      {"empty list", {}, 0, {}},
      {"a name twice sets its bit once", {"Tech", "Tech"}, 0x2, {}},
      {"a channel listed twice counts at its first position", {"Main"}, 0x1, {}},
      {"canonically equivalent spelling", {"Re\xCC\x81gie"}, 0x20, {}},
      {"case matters, each time", {"main", "Tech", "main"}, 0x2, {"main", "main"}},
  };
  const std::vector<std::string> channels{"Main",       "Tech", "Backstage",
                                          "Green Room", "Main", "R\xC3\xA9gie"};
  for (const auto& c : cases) {
    std::vector<std::string> unknown;
    EXPECT_EQ(maskFor(c.names, channels, unknown), c.mask) << c.what;
    EXPECT_EQ(unknown, c.unknown) << c.what;
  }
  std::vector<std::string> wide;
  for (int i = 0; i < 34; ++i) {
    wide.push_back("ch" + std::to_string(i));
  }
  std::vector<std::string> unknown;
  EXPECT_EQ(maskFor({"ch31", "ch32", "ch33"}, wide, unknown), 0x80000000U);
  EXPECT_TRUE(unknown.empty()) << "channels from the 33rd on are known but have no bit";

  const Show show(Config{"S", {"Main", "Tech"}, {{"Odd", {"Main", "Foyer"}, {"Foyer", "Tech"}}}});
  const RoleRights* odd = show.findRole("Odd");
  ASSERT_NE(odd, nullptr);
  EXPECT_EQ(odd->talkMask, 0x1U);
  EXPECT_EQ(odd->listenMask, 0x2U);
  EXPECT_EQ(odd->unknownChannels, (std::vector<std::string>{"Foyer", "Foyer"}));
  EXPECT_EQ(show.findRole("odd"), nullptr);
}

}  // namespace
}  // namespace parlavox
