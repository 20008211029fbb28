#include <gtest/gtest.h>

#include "client/ShowInfo.h"

namespace parlavox::client {
namespace {

ShowInfo show() {
  return ShowInfo(wire::ConfigMsg{{"Main", "Tech", "Backstage", "Green Room"},
                                  {{"Stage Manager", {"Main", "Tech"}, {"Main", "Tech", "Backstage"}},
                                   {"R\xC3\xA9gie", {"Main"}, {}},
                                   {"Director", {}, {"Main"}}}});
}

TEST(ShowInfo, FindsRolesExactlyButForUnicodeSpelling) {
  const auto info = show();
  ASSERT_NE(info.findRole("Re\xCC\x81gie"), nullptr);  // decomposed é
  EXPECT_EQ(info.findRole("Re\xCC\x81gie")->name, "R\xC3\xA9gie");
  EXPECT_EQ(info.findRole("stage manager"), nullptr);
  EXPECT_EQ(info.findRole("Stage Manager "), nullptr);
  EXPECT_EQ(info.roleNames(), "Stage Manager, R\xC3\xA9gie, Director");
}

TEST(ShowInfo, NamesTheChannelsOfAMask) {
  const auto info = show();
  EXPECT_EQ(info.channelNames(0), "none");
  EXPECT_EQ(info.channelNames(0xA), "Tech, Green Room");
  EXPECT_EQ(info.channelNames(0xFFFFFFFF), "Main, Tech, Backstage, Green Room");
  EXPECT_EQ(info.channelNames(0x30), "none") << "bits past the last channel name nothing";
}

TEST(ShowInfo, DescribesChannelsAndEveryRole) {
  EXPECT_EQ(show().describe(),
            (std::vector<std::string>{
                "   Channels: Main, Tech, Backstage, Green Room",
                "   Roles:",
                "     • Stage Manager: talks on Main, Tech; hears Main, Tech, Backstage",
                "     • R\xC3\xA9gie: talks on Main; hears none",
                "     • Director: listen only; hears Main",
            }));
  EXPECT_EQ(ShowInfo(wire::ConfigMsg{}).describe(),
            (std::vector<std::string>{"   Channels: none", "   Roles:    none"}));
}

TEST(ShowInfo, ParsesMasksAsNumbersOrChannelNames) {
  const std::string channels = "(channels: Main, Tech, Backstage, Green Room)";
  const std::vector<std::pair<std::string, std::variant<std::uint32_t, std::string>>> table{
      {"3", 3U},
      {"0x0F", 0xFU},
      {"4294967295", 0xFFFFFFFFU},
      {"Main", 1U},
      {"Main,Green Room", 9U},
      {" Tech , Main ", 3U},
      {"main", "unknown channel \"main\" " + channels},
      {"Main,,Tech", "unknown channel \"\" " + channels},
      {"-1", "unknown channel \"-1\" " + channels},
      {"4294967296", "--mask 4294967296 does not fit 32 channels"},
      {"", "--mask is empty"},
  };
  const auto info = show();
  for (const auto& [text, expected] : table) {
    EXPECT_EQ(info.parseMask(text), expected) << '"' << text << '"';
  }
}

}  // namespace
}  // namespace parlavox::client
