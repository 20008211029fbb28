#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "config/Config.h"
#include "config/RolesFile.h"
#include "devkit/TempDir.h"

namespace parlavox {
namespace {

Config twoChannels(std::string show = "Parlavox", std::uint16_t oscPort = 47000,
                   std::uint32_t peersPerHost = 32, std::uint32_t audioPerTalker = 100) {
  return Config{std::move(show), {"A", "B"},   {{"R", {"A"}, {"A", "B"}}},
                oscPort,         peersPerHost, audioPerTalker};
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
      {"nullOptionalKeys", R"({"show":null,"oscPort":null,"channels":["A","B"],)" + roleAB + "}",
       twoChannels()},
      {"lowestPort", R"({"oscPort":0,"channels":["A","B"],)" + roleAB + "}",
       twoChannels("Parlavox", 0)},
      {"peersPerHost", R"({"peersPerHost":1,"channels":["A","B"],)" + roleAB + "}",
       twoChannels("Parlavox", 47000, 1)},
      {"audioPerTalker", R"({"audioPerTalker":400,"channels":["A","B"],)" + roleAB + "}",
       twoChannels("Parlavox", 47000, 32, 400)},
      {"unknownKeysIgnoredEverywhere",
       R"({"comment":"x","channels":["A","B"],"extra":{"deep":[1,[2,{"k":null}]]},)"
       R"("roles":[{"note":5,"name":"R","talk":["A"],"listen":["A","B"],"x":[]}]})",
       twoChannels()},
      {"duplicatesAndEmptyTalkKept",
       R"({"channels":["A","A"],"roles":[{"name":"R","talk":["A","A"],"listen":[]},)"
       R"({"name":"R","talk":[],"listen":["Z"]}]})",
       Config{"Parlavox", {"A", "A"}, {{"R", {"A", "A"}, {}}, {"R", {}, {"Z"}}}, 47000}},
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
  const auto withPerHost = [](const std::string& count) {
    return R"({"channels":[],"roles":[],"peersPerHost":)" + count + "}";
  };
  const std::string goodRole = R"({"name":"R","talk":[],"listen":[]})";
  struct Case {
    const char* label;
    std::string json;
    std::string errorMentions;  // the key or the position the message must name
  };
  const Case cases[] = {
      {"trailingGarbage", R"({"channels":[],"roles":[]} x)", "parse error"},
      {"trailingNul", std::string(R"({"channels":[],"roles":[]})") + '\0' + "junk", "byte 27"},
      {"invalidUtf8", "{\"channels\":[\"\xff\"],\"roles\":[]}", "UTF-8"},
      {"topLevelArray", "[]", "top level"},
      {"channelsMissing", R"({"roles":[]})", "channels: missing"},
      {"channelNotString", R"({"channels":["A",1],"roles":[]})", "channels[1]"},
      {"rolesMissing", R"({"channels":[]})", "roles: missing"},
      {"roleWithoutListen", withRole(R"({"name":"R","talk":[]})"), "roles[0].listen"},
      {"roleNameNumber", withRole(R"({"name":1,"talk":[],"listen":[]})"), "roles[0].name"},
      {"thirdRoleTalkString",
       withRole(goodRole + "," + goodRole + R"(,{"name":"R","talk":"A","listen":[]})"),
       "roles[2].talk: expected an array of strings"},
      {"showNumber", R"({"show":5,"channels":[],"roles":[]})", "show"},
      {"portJustAboveRange", withPort("65536"), "oscPort"},
      {"portWrittenAsFloat", withPort("47000.0"), "oscPort"},
      {"peersPerHostZero", withPerHost("0"), "peersPerHost"},
      {"peersPerHostNegative", withPerHost("-3"), "peersPerHost"},
      {"peersPerHostText", withPerHost("\"32\""), "peersPerHost"},
      {"peersPerHostHuge", withPerHost("4294967296"), "peersPerHost"},
      {"audioPerTalkerZero", R"({"channels":[],"roles":[],"audioPerTalker":0})", "audioPerTalker"},
      {"deepArrays", std::string(100000, '['), "nested deeper"},
  };
  for (const auto& c : cases) {
    const auto decoded = decodeConfig(c.json);
    EXPECT_FALSE(decoded.config.has_value()) << c.label;
    EXPECT_NE(decoded.error.find(c.errorMentions), std::string::npos)
        << c.label << ": error was " << decoded.error;
  }
}

// builtin-roles.json is the built-in roles file written out by hand, line by line; a per-host cap
// of its own is written after the port, and read back.
TEST(RolesFile, BuiltInFileIsWrittenByteForByte) {
  const std::string builtIn = devkit::readFile(PARLAVOX_TEST_DATA "/builtin-roles.json");
  EXPECT_EQ(encodeConfig(defaultConfig()), builtIn);
  Config config = defaultConfig();
  config.peersPerHost = 64;
  const std::string text = encodeConfig(config);
  EXPECT_EQ(text, builtIn.substr(0, builtIn.size() - 2) + ",\n  \"peersPerHost\" : 64\n}");
  EXPECT_EQ(decodeConfig(text).config, config);
}

}  // namespace
}  // namespace parlavox
