#include <gtest/gtest.h>

#include "client/ShowInfo.h"

namespace parlavox::client {
namespace {

using json = nlohmann::json;

json configMessage() {
  return json::parse(R"({"t":"config","channels":["Main","Tech","Backstage","Green Room"],
    "roles":[{"name":"Stage Manager","talk":["Main","Tech"],"listen":["Main","Tech","Backstage"]},
             {"name":"R\u00e9gie","talk":["Main"],"listen":[]},
             {"name":"Director","talk":[],"listen":["Main"]}]})");
}

ShowInfo show() {
  return ShowInfo::fromConfigMessage(configMessage()).value();
}

TEST(ShowInfo, ReadsTheConfigMessage) {
  const auto info = show();
  EXPECT_EQ(info.channels(), (std::vector<std::string>{"Main", "Tech", "Backstage", "Green Room"}));
  ASSERT_EQ(info.roles().size(), 3U);
  EXPECT_EQ(info.roles()[0],
            (Role{"Stage Manager", {"Main", "Tech"}, {"Main", "Tech", "Backstage"}}));
  EXPECT_EQ(info.roles()[1].name, "R\xC3\xA9gie");
  EXPECT_TRUE(info.roles()[2].talk.empty());
}

TEST(ShowInfo, RefusesWhatIsNotAConfigMessage) {
  const std::vector<std::string> bad{
      R"({"t":"welcome","channels":[],"roles":[]})",
      R"({"channels":[],"roles":[]})",
      R"({"t":"config","roles":[]})",
      R"({"t":"config","channels":[],"roles":{}})",
      R"({"t":"config","channels":["Main",3],"roles":[]})",
      R"({"t":"config","channels":[],"roles":[{"talk":[],"listen":[]}]})",
      R"({"t":"config","channels":[],"roles":[{"name":7,"talk":[],"listen":[]}]})",
      R"({"t":"config","channels":[],"roles":[{"name":"A","talk":"Main","listen":[]}]})",
      R"({"t":"config","channels":[],"roles":[{"name":"A","talk":[],"listen":[null]}]})",
      R"(["t","config"])",
  };
  for (const auto& text : bad) {
    EXPECT_FALSE(ShowInfo::fromConfigMessage(json::parse(text))) << text;
  }
  EXPECT_TRUE(
      ShowInfo::fromConfigMessage(json::parse(R"({"t":"config","channels":[],"roles":[]})")));
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
  const auto empty =
      ShowInfo::fromConfigMessage(json::parse(R"({"t":"config","channels":[],"roles":[]})"));
  EXPECT_EQ(empty->describe(),
            (std::vector<std::string>{"   Channels: none", "   Roles:    none"}));
}

struct MaskCase {
  std::string text;
  std::variant<std::uint32_t, std::string> expected;
};

TEST(ShowInfo, ParsesMasksAsNumbersOrChannelNames) {
  const std::string channels = "(channels: Main, Tech, Backstage, Green Room)";
  const std::vector<MaskCase> table{
      {"3", 3U},
      {"0x0F", 0xFU},
      {"0XfF", 0xFFU},
      {"4294967295", 0xFFFFFFFFU},
      {"Main", 1U},
      {"Green Room", 8U},
      {"Main,Green Room", 9U},
      {" Tech , Main ", 3U},
      {"Tech,Tech", 2U},
      {"main", "unknown channel \"main\" " + channels},
      {"Main,,Tech", "unknown channel \"\" " + channels},
      {"0x", "unknown channel \"0x\" " + channels},
      {"-1", "unknown channel \"-1\" " + channels},
      {"4294967296", "--mask 4294967296 does not fit 32 channels"},
      {"0x100000000", "--mask 0x100000000 does not fit 32 channels"},
      {"", "--mask is empty"},
      {"  ", "--mask is empty"},
  };
  const auto info = show();
  for (const auto& row : table) {
    EXPECT_EQ(info.parseMask(row.text), row.expected) << '"' << row.text << '"';
  }
}

}  // namespace
}  // namespace parlavox::client
