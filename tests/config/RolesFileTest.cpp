#include <gtest/gtest.h>

#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "config/Config.h"
#include "config/RolesFile.h"

namespace parlavox {
namespace {

// The built-in roles file, written out by hand line by line.
constexpr std::string_view builtInFile = R"file({
  "show" : "Parlavox",
  "channels" : [
    "Main",
    "Tech",
    "Backstage",
    "Green Room"
  ],
  "roles" : [
    {
      "name" : "Stage Manager",
      "talk" : [
        "Main",
        "Tech",
        "Backstage",
        "Green Room"
      ],
      "listen" : [
        "Main",
        "Tech",
        "Backstage",
        "Green Room"
      ]
    },
    {
      "name" : "Lighting",
      "talk" : [
        "Main",
        "Tech"
      ],
      "listen" : [
        "Main",
        "Tech"
      ]
    },
    {
      "name" : "Sound",
      "talk" : [
        "Main",
        "Tech"
      ],
      "listen" : [
        "Main",
        "Tech"
      ]
    },
    {
      "name" : "Backstage Crew",
      "talk" : [
        "Main",
        "Backstage"
      ],
      "listen" : [
        "Main",
        "Backstage"
      ]
    },
    {
      "name" : "Green Room Parent",
      "talk" : [
        "Green Room"
      ],
      "listen" : [
        "Main",
        "Green Room"
      ]
    },
    {
      "name" : "Director (listen only)",
      "talk" : [],
      "listen" : [
        "Main",
        "Tech",
        "Backstage"
      ]
    }
  ],
  "oscPort" : 47000
})file";

Config twoChannels(std::string show = "Parlavox", std::uint16_t oscPort = 47000) {
  return Config{std::move(show), {"A", "B"}, {{"R", {"A"}, {"A", "B"}}}, oscPort};
}

std::string manyChannels(int count) {
  std::string list;
  for (int i = 0; i < count; ++i) {
    list += (i == 0 ? "\"c" : ",\"c") + std::to_string(i) + "\"";
  }
  return R"({"channels":[)" + list + R"(],"roles":[]})";
}

struct Accepted {
  const char* label;
  std::string json;
  Config expected;
};
// NOLINTNEXTLINE(readability-identifier-naming): the name GoogleTest looks for
void PrintTo(const Accepted& c, std::ostream* os) {
  *os << c.label;
}

class DecodeAccepts : public testing::TestWithParam<Accepted> {};

TEST_P(DecodeAccepts, YieldsTheConfig) {
  const auto decoded = decodeConfig(GetParam().json);
  ASSERT_TRUE(decoded.config.has_value()) << decoded.error;
  EXPECT_EQ(*decoded.config, GetParam().expected);
}

std::string roleAB() {
  return R"([{"name":"R","talk":["A"],"listen":["A","B"]}])";
}

INSTANTIATE_TEST_SUITE_P(
    RolesFile, DecodeAccepts,
    testing::Values(
        Accepted{
            "complete",
            R"({"show":"Hamlet","channels":["A","B"],"roles":)" + roleAB() + R"(,"oscPort":9000})",
            twoChannels("Hamlet", 9000)},
        Accepted{
            "keysInAnyOrder",
            R"({"oscPort":9000,"roles":)" + roleAB() + R"(,"channels":["A","B"],"show":"Hamlet"})",
            twoChannels("Hamlet", 9000)},
        Accepted{"onlyRequiredKeys", R"({"channels":["A","B"],"roles":)" + roleAB() + "}",
                 twoChannels()},
        Accepted{"nullOptionalKeys",
                 R"({"show":null,"oscPort":null,"channels":["A","B"],"roles":)" + roleAB() + "}",
                 twoChannels()},
        Accepted{"lowestPort", R"({"oscPort":0,"channels":["A","B"],"roles":)" + roleAB() + "}",
                 twoChannels("Parlavox", 0)},
        Accepted{"highestPort",
                 R"({"oscPort":65535,"channels":["A","B"],"roles":)" + roleAB() + "}",
                 twoChannels("Parlavox", 65535)},
        Accepted{"emptyTalkIsListenOnly",
                 R"({"channels":["A"],"roles":[{"name":"D","talk":[],"listen":["A"]}]})",
                 Config{"Parlavox", {"A"}, {{"D", {}, {"A"}}}, 47000}},
        Accepted{"unknownKeysIgnoredEverywhere",
                 R"({"comment":"x","channels":["A","B"],"extra":{"deep":[1,[2,{"k":null}]]},)"
                 R"("roles":[{"note":5,"name":"R","talk":["A"],"listen":["A","B"],"x":[]}]})",
                 twoChannels()},
        Accepted{"keysAreCaseSensitive",
                 R"({"Show":5,"OSCPORT":"x","channels":["A","B"],"roles":)" + roleAB() + "}",
                 twoChannels()},
        Accepted{"emptyLists", R"({"channels":[],"roles":[]})", Config{"Parlavox", {}, {}, 47000}},
        Accepted{"duplicatesKept",
                 R"({"channels":["A","A"],"roles":[{"name":"R","talk":["A","A"],"listen":[]},)"
                 R"({"name":"R","talk":[],"listen":["Z"]}]})",
                 Config{"Parlavox", {"A", "A"}, {{"R", {"A", "A"}, {}}, {"R", {}, {"Z"}}}, 47000}},
        Accepted{"unicodeAndEscapes",
                 R"({"show":"R\u00e9gie \"A\"/B","channels":["Gr\u00fcn","🎭"],"roles":[]})",
                 Config{"Régie \"A\"/B", {"Grün", "🎭"}, {}, 47000}},
        Accepted{"surroundingWhitespace", "\n  " + manyChannels(1) + " \n",
                 Config{"Parlavox", {"c0"}, {}, 47000}}),
    [](const auto& p) { return std::string(p.param.label); });

TEST(RolesFile, ThirtyThreeChannelsLoad) {
  // The channel count is not the file's business: start-up refuses more than 32.
  const auto decoded = decodeConfig(manyChannels(33));
  ASSERT_TRUE(decoded.config.has_value()) << decoded.error;
  EXPECT_EQ(decoded.config->channels.size(), 33U);
  EXPECT_EQ(decoded.config->channels.back(), "c32");
}

struct Rejected {
  const char* label;
  std::string json;
  std::string errorMentions;  // the key or the position the message must name
};
// NOLINTNEXTLINE(readability-identifier-naming): the name GoogleTest looks for
void PrintTo(const Rejected& c, std::ostream* os) {
  *os << c.label;
}

class DecodeRejects : public testing::TestWithParam<Rejected> {};

TEST_P(DecodeRejects, NamesWhatFailed) {
  const auto decoded = decodeConfig(GetParam().json);
  EXPECT_FALSE(decoded.config.has_value());
  EXPECT_NE(decoded.error.find(GetParam().errorMentions), std::string::npos)
      << "error was: " << decoded.error;
}

std::string withRole(const std::string& role) {
  return R"({"channels":["A"],"roles":[)" + role + "]}";
}

std::string withPort(const std::string& port) {
  return R"({"channels":[],"roles":[],"oscPort":)" + port + "}";
}

std::string goodRole() {
  return R"({"name":"R","talk":[],"listen":[]})";
}

INSTANTIATE_TEST_SUITE_P(
    RolesFile, DecodeRejects,
    testing::Values(
        Rejected{"emptyFile", "", "line 1, column 1"},
        Rejected{"notJson", "roles: none", "parse error"},
        Rejected{"truncated", R"({"channels":["A"],"roles":[)", "parse error"},
        Rejected{"trailingGarbage", R"({"channels":[],"roles":[]} x)", "parse error"},
        Rejected{"secondDocument", R"({"channels":[],"roles":[]}{})", "parse error"},
        Rejected{"trailingNul", std::string(R"({"channels":[],"roles":[]})") + '\0' + "junk",
                 "byte 27"},
        Rejected{"invalidUtf8", "{\"channels\":[\"\xff\"],\"roles\":[]}", "UTF-8"},
        Rejected{"topLevelArray", "[]", "top level"},
        Rejected{"topLevelString", R"("channels")", "top level"},
        Rejected{"channelsMissing", R"({"roles":[]})", "channels: missing"},
        Rejected{"channelsNull", R"({"channels":null,"roles":[]})", "channels: null"},
        Rejected{"channelsNotArray", R"({"channels":"A","roles":[]})", "channels"},
        Rejected{"channelNotString", R"({"channels":["A",1],"roles":[]})", "channels[1]"},
        Rejected{"rolesMissing", R"({"channels":[]})", "roles: missing"},
        Rejected{"rolesNull", R"({"channels":[],"roles":null})", "roles: null"},
        Rejected{"rolesObject", R"({"channels":[],"roles":{}})", "roles"},
        Rejected{"roleNotObject", withRole(R"("R")"), "roles[0]"},
        Rejected{"roleWithoutName", withRole(R"({"talk":[],"listen":[]})"), "roles[0].name"},
        Rejected{"roleNameNumber", withRole(R"({"name":1,"talk":[],"listen":[]})"),
                 "roles[0].name"},
        Rejected{"roleWithoutTalk", withRole(R"({"name":"R","listen":[]})"), "roles[0].talk"},
        Rejected{"roleTalkNull", withRole(R"({"name":"R","talk":null,"listen":[]})"),
                 "roles[0].talk"},
        Rejected{"roleWithoutListen", withRole(R"({"name":"R","talk":[]})"), "roles[0].listen"},
        Rejected{
            "thirdRoleTalkString",
            withRole(goodRole() + "," + goodRole() + R"(,{"name":"R","talk":"A","listen":[]})"),
            "roles[2].talk: expected an array of strings"},
        Rejected{"talkElementNull", withRole(R"({"name":"R","talk":["A",null],"listen":[]})"),
                 "roles[0].talk[1]"},
        Rejected{"showNumber", R"({"show":5,"channels":[],"roles":[]})", "show"},
        Rejected{"portAboveRange", withPort("70000"), "oscPort"},
        Rejected{"portJustAboveRange", withPort("65536"), "oscPort"},
        Rejected{"portNegative", withPort("-1"), "oscPort"},
        Rejected{"portString", withPort(R"("47000")"), "oscPort"},
        Rejected{"portFraction", withPort("47000.5"), "oscPort"},
        Rejected{"portWrittenAsFloat", withPort("47000.0"), "oscPort"},
        Rejected{"portHuge", withPort("184467440737095516160"), "oscPort"},
        Rejected{"portBool", withPort("true"), "oscPort"},
        Rejected{"deepArrays", std::string(100000, '['), "nested deeper"},
        Rejected{"deepUnderUnknownKey",
                 [] {
                   std::string s = R"({"channels":[],"roles":[],"x":)";
                   for (int i = 0; i < 100000; ++i) {
                     s += R"({"a":)";
                   }
                   return s;
                 }(),
                 "nested deeper"}),
    [](const auto& p) { return std::string(p.param.label); });

TEST(RolesFile, BuiltInFileIsWrittenByteForByte) {
  EXPECT_EQ(encodeConfig(defaultConfig()), builtInFile);
}

TEST(RolesFile, EmptyListsAndZeroPortAreWrittenCompactly) {
  EXPECT_EQ(encodeConfig(Config{"", {}, {}, 0}),
            "{\n  \"show\" : \"\",\n  \"channels\" : [],\n  \"roles\" : [],\n  \"oscPort\" : 0\n}");
}

TEST(RolesFile, SolidusStaysUnescapedAndOtherTextUnchanged) {
  const auto text = encodeConfig(Config{"Sound/Video \"Live\" é\\", {"A\tB"}, {}, 1});
  EXPECT_NE(text.find(R"("show" : "Sound/Video \"Live\" é\\",)"), std::string::npos) << text;
  EXPECT_NE(text.find(R"("A\tB")"), std::string::npos) << text;
}

TEST(RolesFile, EncodeRefusesInvalidUtf8) {
  EXPECT_EQ(encodeConfig(Config{"bad \xc3", {}, {}, 1}), "");
  EXPECT_EQ(encodeConfig(Config{"ok", {}, {{"R", {"\xff"}, {}}}, 1}), "");
}

TEST(RolesFile, EncodedFilesDecodeToTheSameConfig) {
  const std::vector<Config> configs{
      defaultConfig(),
      Config{"", {}, {}, 0},
      Config{"Régie/🎭 \"x\"\n", {"Grün", "A", "A"}, {{"", {}, {}}, {"R", {"A"}, {"Z"}}}, 65535},
  };
  for (const auto& config : configs) {
    const auto decoded = decodeConfig(encodeConfig(config));
    ASSERT_TRUE(decoded.config.has_value()) << decoded.error;
    EXPECT_EQ(*decoded.config, config);
  }
}

}  // namespace
}  // namespace parlavox
