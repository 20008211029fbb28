#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "config/Config.h"
#include "config/RolesFile.h"
#include "support/TempDir.h"

namespace parlavox {
namespace {



Config twoChannels(std::string show = "Parlavox", std::uint16_t oscPort = 47000) {
  return Config{std::move(show), {"A", "B"}, {{"R", {"A"}, {"A", "B"}}}, oscPort};
}

// The channels c0, c1, ...; and a file with them and no roles.
std::vector<std::string> numbered(int count) {
  std::vector<std::string> channels;
  for (int i = 0; i < count; ++i) {
    channels.push_back("c" + std::to_string(i));
  }
  return channels;
}
std::string manyChannels(int count) {
  std::string list;
  for (const auto& name : numbered(count)) {
    list += (list.empty() ? "\"" : ",\"") + name + "\"";
  }
  return R"({"channels":[)" + list + R"(],"roles":[]})";
}

TEST(RolesFile, DecodeAcceptsWellFormedFiles) {
  const std::string roleAB = R"("roles":[{"name":"R","talk":["A"],"listen":["A","B"]}])";
  struct Case {
    const char* label;
    std::string json;
    Config expected;
  };
  const Case cases[] = {
      {"complete", R"({"show":"Hamlet","channels":["A","B"],)" + roleAB + R"(,"oscPort":9000})",
       twoChannels("Hamlet", 9000)},
      {"onlyRequiredKeys", R"({"channels":["A","B"],)" + roleAB + "}", twoChannels()},
      {"nullOptionalKeys", R"({"show":null,"oscPort":null,"channels":["A","B"],)" + roleAB + "}",
       twoChannels()},
      {"lowestPort", R"({"oscPort":0,"channels":["A","B"],)" + roleAB + "}",
       twoChannels("Parlavox", 0)},
      {"highestPort", R"({"oscPort":65535,"channels":["A","B"],)" + roleAB + "}",
       twoChannels("Parlavox", 65535)},
      {"unknownKeysIgnoredEverywhere",
       R"({"comment":"x","channels":["A","B"],"extra":{"deep":[1,[2,{"k":null}]]},)"
       R"("roles":[{"note":5,"name":"R","talk":["A"],"listen":["A","B"],"x":[]}]})",
       twoChannels()},
      {"keysAreCaseSensitive", R"({"Show":5,"OSCPORT":"x","channels":["A","B"],)" + roleAB + "}",
       twoChannels()},
      {"duplicatesAndEmptyTalkKept",
       R"({"channels":["A","A"],"roles":[{"name":"R","talk":["A","A"],"listen":[]},)"
       R"({"name":"R","talk":[],"listen":["Z"]}]})",
       Config{"Parlavox", {"A", "A"}, {{"R", {"A", "A"}, {}}, {"R", {}, {"Z"}}}, 47000}},
      {"unicodeAndEscapes",
       R"({"show":"R\u00e9gie \"A\"/B","channels":["Gr\u00fcn","🎭"],"roles":[]})",
       Config{"Régie \"A\"/B", {"Grün", "🎭"}, {}, 47000}},
      {"emptyLists", R"({"channels":[],"roles":[]})", Config{"Parlavox", {}, {}, 47000}},
      {"surroundingWhitespace", "\n  " + manyChannels(1) + " \n",
       Config{"Parlavox", {"c0"}, {}, 47000}},
      // The channel count is not the file's business: start-up refuses more than 32.
      {"thirtyThreeChannels", manyChannels(33), Config{"Parlavox", numbered(33), {}, 47000}},
  };
  for (const auto& c : cases) {
    const auto decoded = decodeConfig(c.json);
    ASSERT_TRUE(decoded.config.has_value()) << c.label << ": " << decoded.error;
    EXPECT_EQ(*decoded.config, c.expected) << c.label;
  }
}

TEST(RolesFile, DecodeRejectsNamingWhatFailed) {
  const auto withRole = [](const std::string& role) {
    return R"({"channels":["A"],"roles":[)" + role + "]}";
  };
  const auto withPort = [](const std::string& port) {
    return R"({"channels":[],"roles":[],"oscPort":)" + port + "}";
  };
  const std::string goodRole = R"({"name":"R","talk":[],"listen":[]})";
  std::string deepObject = R"({"channels":[],"roles":[],"x":)";
  for (int i = 0; i < 100000; ++i) {
    deepObject += R"({"a":)";
  }
  struct Case {
    const char* label;
    std::string json;
    std::string errorMentions;  // the key or the position the message must name
  };
  const Case cases[] = {
      {"emptyFile", "", "line 1, column 1"},
      {"truncated", R"({"channels":["A"],"roles":[)", "parse error"},
      {"trailingGarbage", R"({"channels":[],"roles":[]} x)", "parse error"},
      {"trailingNul", std::string(R"({"channels":[],"roles":[]})") + '\0' + "junk", "byte 27"},
      {"invalidUtf8", "{\"channels\":[\"\xff\"],\"roles\":[]}", "UTF-8"},
      {"topLevelArray", "[]", "top level"},
      {"channelsMissing", R"({"roles":[]})", "channels: missing"},
      {"channelsNull", R"({"channels":null,"roles":[]})", "channels: null"},
      {"channelNotString", R"({"channels":["A",1],"roles":[]})", "channels[1]"},
      {"rolesMissing", R"({"channels":[]})", "roles: missing"},
      {"roleWithoutListen", withRole(R"({"name":"R","talk":[]})"), "roles[0].listen"},
      {"rolesObject", R"({"channels":[],"roles":{}})", "roles"},
      {"roleWithoutName", withRole(R"({"talk":[],"listen":[]})"), "roles[0].name"},
      {"roleNotObject", withRole(R"("R")"), "roles[0]"},
      {"roleNameNumber", withRole(R"({"name":1,"talk":[],"listen":[]})"), "roles[0].name"},
      {"thirdRoleTalkString",
       withRole(goodRole + "," + goodRole + R"(,{"name":"R","talk":"A","listen":[]})"),
       "roles[2].talk: expected an array of strings"},
      {"talkElementNull", withRole(R"({"name":"R","talk":["A",null],"listen":[]})"),
       "roles[0].talk[1]"},
      {"showNumber", R"({"show":5,"channels":[],"roles":[]})", "show"},
      {"portJustAboveRange", withPort("65536"), "oscPort"},
      {"portNegative", withPort("-1"), "oscPort"},
      {"portWrittenAsFloat", withPort("47000.0"), "oscPort"},
      {"portHuge", withPort("184467440737095516160"), "oscPort"},
      {"deepArrays", std::string(100000, '['), "nested deeper"},
      {"deepUnderUnknownKey", deepObject, "nested deeper"},
  };
  for (const auto& c : cases) {
    const auto decoded = decodeConfig(c.json);
    EXPECT_FALSE(decoded.config.has_value()) << c.label;
    EXPECT_NE(decoded.error.find(c.errorMentions), std::string::npos)
        << c.label << ": error was " << decoded.error;
  }
}

// builtin-roles.json is the built-in roles file written out by hand, line by line.
TEST(RolesFile, BuiltInFileIsWrittenByteForByte) {
  EXPECT_EQ(encodeConfig(defaultConfig()), test::readFile(PARLAVOX_TEST_DATA "/builtin-roles.json"));
}

// That whatever decodes is written out so as to read back the same is checked by the fuzz target
// roles_decode, on every input it decodes.
TEST(RolesFile, EncodeWritesTextAsItIsAndRefusesInvalidUtf8) {
  EXPECT_EQ(encodeConfig(Config{"", {}, {}, 0}),
            "{\n  \"show\" : \"\",\n  \"channels\" : [],\n  \"roles\" : [],\n  \"oscPort\" : 0\n}");
  const auto text = encodeConfig(Config{"Sound/Video \"Live\" é\\", {"A\tB"}, {}, 1});
  EXPECT_NE(text.find(R"("show" : "Sound/Video \"Live\" é\\",)"), std::string::npos) << text;
  EXPECT_NE(text.find(R"("A\tB")"), std::string::npos) << text;
  EXPECT_EQ(encodeConfig(Config{"bad \xc3", {}, {}, 1}), "");
  EXPECT_EQ(encodeConfig(Config{"ok", {}, {{"R", {"\xff"}, {}}}, 1}), "");
}

}  // namespace
}  // namespace parlavox
