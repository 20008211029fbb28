#include <gtest/gtest.h>

#include <optional>
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

std::string roleAB() {
  return R"([{"name":"R","talk":["A"],"listen":["A","B"]}])";
}

TEST(RolesFile, DecodeAcceptsWellFormedFiles) {
  struct Case {
    const char* label;
    std::string json;
    Config expected;
  };
  const Case cases[] = {
      {"complete",
       R"({"show":"Hamlet","channels":["A","B"],"roles":)" + roleAB() + R"(,"oscPort":9000})",
       twoChannels("Hamlet", 9000)},
      {"onlyRequiredKeys", R"({"channels":["A","B"],"roles":)" + roleAB() + "}", twoChannels()},
      {"nullOptionalKeys",
       R"({"show":null,"oscPort":null,"channels":["A","B"],"roles":)" + roleAB() + "}",
       twoChannels()},
      {"lowestPort", R"({"oscPort":0,"channels":["A","B"],"roles":)" + roleAB() + "}",
       twoChannels("Parlavox", 0)},
      {"highestPort", R"({"oscPort":65535,"channels":["A","B"],"roles":)" + roleAB() + "}",
       twoChannels("Parlavox", 65535)},
      {"emptyTalkIsListenOnly",
       R"({"channels":["A"],"roles":[{"name":"D","talk":[],"listen":["A"]}]})",
       Config{"Parlavox", {"A"}, {{"D", {}, {"A"}}}, 47000}},
      {"unknownKeysIgnoredEverywhere",
       R"({"comment":"x","channels":["A","B"],"extra":{"deep":[1,[2,{"k":null}]]},)"
       R"("roles":[{"note":5,"name":"R","talk":["A"],"listen":["A","B"],"x":[]}]})",
       twoChannels()},
      {"keysAreCaseSensitive",
       R"({"Show":5,"OSCPORT":"x","channels":["A","B"],"roles":)" + roleAB() + "}", twoChannels()},
      {"emptyLists", R"({"channels":[],"roles":[]})", Config{"Parlavox", {}, {}, 47000}},
      {"duplicatesKept",
       R"({"channels":["A","A"],"roles":[{"name":"R","talk":["A","A"],"listen":[]},)"
       R"({"name":"R","talk":[],"listen":["Z"]}]})",
       Config{"Parlavox", {"A", "A"}, {{"R", {"A", "A"}, {}}, {"R", {}, {"Z"}}}, 47000}},
      {"unicodeAndEscapes",
       R"({"show":"R\u00e9gie \"A\"/B","channels":["Gr\u00fcn","🎭"],"roles":[]})",
       Config{"Régie \"A\"/B", {"Grün", "🎭"}, {}, 47000}},
      {"surroundingWhitespace", "\n  " + manyChannels(1) + " \n",
       Config{"Parlavox", {"c0"}, {}, 47000}},
  };
  for (const auto& c : cases) {
    const auto decoded = decodeConfig(c.json);
    ASSERT_TRUE(decoded.config.has_value()) << c.label << ": " << decoded.error;
    EXPECT_EQ(*decoded.config, c.expected) << c.label;
  }
}

TEST(RolesFile, ThirtyThreeChannelsLoad) {
  // The channel count is not the file's business: start-up refuses more than 32.
  const auto decoded = decodeConfig(manyChannels(33));
  ASSERT_TRUE(decoded.config.has_value()) << decoded.error;
  EXPECT_EQ(decoded.config->channels.size(), 33U);
  EXPECT_EQ(decoded.config->channels.back(), "c32");
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

TEST(RolesFile, DecodeRejectsNamingWhatFailed) {
  struct Case {
    const char* label;
    std::string json;
    std::string errorMentions;  // the key or the position the message must name
  };
  const Case cases[] = {
      {"emptyFile", "", "line 1, column 1"},
      {"notJson", "roles: none", "parse error"},
      {"truncated", R"({"channels":["A"],"roles":[)", "parse error"},
      {"trailingGarbage", R"({"channels":[],"roles":[]} x)", "parse error"},
      {"trailingNul", std::string(R"({"channels":[],"roles":[]})") + '\0' + "junk", "byte 27"},
      {"invalidUtf8", "{\"channels\":[\"\xff\"],\"roles\":[]}", "UTF-8"},
      {"topLevelArray", "[]", "top level"},
      {"channelsMissing", R"({"roles":[]})", "channels: missing"},
      {"channelsNull", R"({"channels":null,"roles":[]})", "channels: null"},
      {"channelsNotArray", R"({"channels":"A","roles":[]})", "channels"},
      {"channelNotString", R"({"channels":["A",1],"roles":[]})", "channels[1]"},
      {"rolesMissing", R"({"channels":[]})", "roles: missing"},
      {"rolesObject", R"({"channels":[],"roles":{}})", "roles"},
      {"roleNotObject", withRole(R"("R")"), "roles[0]"},
      {"roleWithoutName", withRole(R"({"talk":[],"listen":[]})"), "roles[0].name"},
      {"roleNameNumber", withRole(R"({"name":1,"talk":[],"listen":[]})"), "roles[0].name"},
      {"roleWithoutTalk", withRole(R"({"name":"R","listen":[]})"), "roles[0].talk"},
      {"roleWithoutListen", withRole(R"({"name":"R","talk":[]})"), "roles[0].listen"},
      {"thirdRoleTalkString",
       withRole(goodRole() + "," + goodRole() + R"(,{"name":"R","talk":"A","listen":[]})"),
       "roles[2].talk: expected an array of strings"},
      {"talkElementNull", withRole(R"({"name":"R","talk":["A",null],"listen":[]})"),
       "roles[0].talk[1]"},
      {"showNumber", R"({"show":5,"channels":[],"roles":[]})", "show"},
      {"portJustAboveRange", withPort("65536"), "oscPort"},
      {"portNegative", withPort("-1"), "oscPort"},
      {"portString", withPort(R"("47000")"), "oscPort"},
      {"portWrittenAsFloat", withPort("47000.0"), "oscPort"},
      {"portHuge", withPort("184467440737095516160"), "oscPort"},
      {"deepArrays", std::string(100000, '['), "nested deeper"},
      {"deepUnderUnknownKey",
       [] {
         std::string s = R"({"channels":[],"roles":[],"x":)";
         for (int i = 0; i < 100000; ++i) {
           s += R"({"a":)";
         }
         return s;
       }(),
       "nested deeper"},
  };
  for (const auto& c : cases) {
    const auto decoded = decodeConfig(c.json);
    EXPECT_FALSE(decoded.config.has_value()) << c.label;
    EXPECT_NE(decoded.error.find(c.errorMentions), std::string::npos)
        << c.label << ": error was " << decoded.error;
  }
}

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
