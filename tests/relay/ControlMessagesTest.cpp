#include <gtest/gtest.h>

#include <string>

#include "config/Config.h"
#include "relay/ControlMessages.h"

namespace parlavox {
namespace {

std::string nested(std::string_view open, std::size_t depth) {
  std::string out;
  out.reserve(open.size() * depth);
  for (std::size_t i = 0; i < depth; ++i) {
    out += open;
  }
  return out;
}

Incoming in(std::string t, std::optional<std::string> name = std::nullopt,
            std::optional<std::string> role = std::nullopt) {
  return Incoming{std::move(t), std::move(name), std::move(role)};
}

std::string longName() {
  return std::string(65000, 'a');
}

TEST(ControlMessages, DecodeIncomingAcceptsOnlyWellFormedMessages) {
  struct Case {
    const char* label;
    std::string bytes;
    std::optional<Incoming> expected;
  };
  const Case cases[] = {
      {"hi", R"({"t":"hi"})", in("hi")},
      {"join", R"({"t":"join","name":"Ana","role":"Lighting"})", in("join", "Ana", "Lighting")},
      {"nullNameAndRole", R"({"t":"join","name":null,"role":null})", in("join")},
      {"emptyStrings", R"({"t":"","name":"","role":""})", in("", "", "")},
      {"unknownTypeStillDecodes", R"({"t":"HI"})", in("HI")},
      {"extraKeysIgnored",
       R"({"t":"join","role":"Lighting","x":[1,{"y":null}],"name":"B","z":true})",
       in("join", "B", "Lighting")},
      {"escapesAndUnicode",
       R"({"t":"join","name":"R\u00e9gie \"1\"\/\ud83d\udc4d","role":"Son/Vid\u00e9o"})",
       in("join", "R\u00e9gie \"1\"/\U0001F44D", "Son/Vid\u00e9o")},
      {"rawUtf8", "{\"t\":\"join\",\"name\":\"\U0001F44D\U0001F3FD\"}",
       in("join", "\U0001F44D\U0001F3FD")},
      {"bracketsInsideStringsAreText", R"({"t":"hi","name":"\")" + nested("[{", 5000) + R"("})",
       in("hi", "\"" + nested("[{", 5000))},
      {"moderateNestingInExtraKey", R"({"t":"hi","x":)" + nested("[", 20) + nested("]", 20) + "}",
       in("hi")},
      {"lastDuplicateWins", R"({"t":5,"t":"ping"})", in("ping")},
      {"lastDuplicateWinsBadType", R"({"t":"ping","t":5})", std::nullopt},
      {"largeValidPayload", R"({"t":"join","name":")" + longName() + R"("})",
       in("join", longName())},
      {"tMissing", R"({"name":"Ana"})", std::nullopt},
      {"tNumber", R"({"t":1})", std::nullopt},
      {"tNull", R"({"t":null})", std::nullopt},
      {"nameNumber", R"({"t":"join","name":5,"role":"Sound"})", std::nullopt},
      {"roleArray", R"({"t":"join","role":["Sound"]})", std::nullopt},
      {"empty", "", std::nullopt},
      {"array", R"([{"t":"hi"}])", std::nullopt},
      {"truncated", R"({"t":"hi")", std::nullopt},
      {"comment", R"({"t":"hi"/* x */})", std::nullopt},
      {"trailingGarbage", R"({"t":"hi"}x)", std::nullopt},
      {"trailingNul", std::string(R"({"t":"hi"})") + '\0', std::nullopt},
      {"invalidUtf8InString", "{\"t\":\"hi\",\"name\":\"\xff\"}", std::nullopt},
      {"overlongSolidus", "{\"t\":\"\xc0\xaf\"}", std::nullopt},
      {"encodedSurrogate", "{\"t\":\"\xed\xa0\x80\"}", std::nullopt},
      {"escapedLoneSurrogate", R"({"t":"\ud800"})", std::nullopt},
      {"rawControlCharacter", "{\"t\":\"h\ni\"}", std::nullopt},
      {"deepArrays", nested("[", 100000), std::nullopt},
      {"deepUnderValidMessage",
       R"({"t":"hi","x":)" + nested("[", 100000) + nested("]", 100000) + "}", std::nullopt},
      {"datagramOfGarbage", std::string(65507, '\xff'), std::nullopt},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(decodeIncoming(asBytes(c.bytes)), c.expected) << c.label;
  }
}

std::string control(std::string_view json) {
  return "\x01" + std::string(json);
}

TEST(EncodeControl, SimpleMessages) {
  EXPECT_EQ(encodeControl(SimpleMsg{"pong", std::nullopt}), control(R"({"t":"pong"})"));
  EXPECT_EQ(encodeControl(SimpleMsg{"rejoin", std::nullopt}), control(R"({"t":"rejoin"})"));
  EXPECT_EQ(encodeControl(SimpleMsg{"error", "That role no longer exists. Pick another."}),
            control(R"({"t":"error","reason":"That role no longer exists. Pick another."})"));
  EXPECT_EQ(encodeControl(SimpleMsg{"error", ""}), control(R"({"t":"error","reason":""})"));
}

TEST(EncodeControl, Welcome) {
  EXPECT_EQ(encodeControl(WelcomeMsg{1, "Lighting", 3, 3}),
            control(R"({"t":"welcome","id":1,"role":"Lighting","talkMask":3,"listenMask":3})"));
  EXPECT_EQ(encodeControl(WelcomeMsg{65535, "Director (listen only)", 0, 0xFFFFFFFF}),
            control(R"json({"t":"welcome","id":65535,"role":"Director (listen only)",)json"
                    R"("talkMask":0,"listenMask":4294967295})"));
}

TEST(EncodeControl, Roster) {
  EXPECT_EQ(encodeControl(
                RosterMsg{{{1, "Ana", "Lighting"}, {2, "R\u00e9gie \"B\"/\U0001F3AD", "Sound"}}}),
            control(R"({"t":"roster","users":[{"id":1,"name":"Ana","role":"Lighting"},)"
                    R"({"id":2,"name":"R)"
                    "\u00e9gie \\\"B\\\"/\U0001F3AD"
                    R"(","role":"Sound"}]})"));
  EXPECT_EQ(encodeControl(RosterMsg{}), control(R"({"t":"roster","users":[]})"));
}

TEST(EncodeControl, ConfigOfTheBuiltInShow) {
  const Config show = defaultConfig();
  EXPECT_EQ(encodeControl(ConfigMsg{show.channels, show.roles}),
            control(R"({"t":"config","channels":["Main","Tech","Backstage","Green Room"],"roles":[)"
                    R"({"name":"Stage Manager","talk":["Main","Tech","Backstage","Green Room"],)"
                    R"("listen":["Main","Tech","Backstage","Green Room"]},)"
                    R"({"name":"Lighting","talk":["Main","Tech"],"listen":["Main","Tech"]},)"
                    R"({"name":"Sound","talk":["Main","Tech"],"listen":["Main","Tech"]},)"
                    R"({"name":"Backstage Crew","talk":["Main","Backstage"],)"
                    R"("listen":["Main","Backstage"]},)"
                    R"({"name":"Green Room Parent","talk":["Green Room"],)"
                    R"("listen":["Main","Green Room"]},)"
                    R"json({"name":"Director (listen only)","talk":[],)json"
                    R"("listen":["Main","Tech","Backstage"]}]})"));
  EXPECT_EQ(encodeControl(ConfigMsg{}), control(R"({"t":"config","channels":[],"roles":[]})"));
}

TEST(EncodeControl, InvalidUtf8GivesNothingToSend) {
  EXPECT_EQ(encodeControl(SimpleMsg{"error", "\xff"}), "");
  EXPECT_EQ(encodeControl(WelcomeMsg{1, "Light\xc3", 1, 1}), "");
  EXPECT_EQ(encodeControl(RosterMsg{{{1, "ok", "ok"}, {2, "\xe2\x82", "ok"}}}), "");
  EXPECT_EQ(encodeControl(ConfigMsg{{"Main"}, {{"R", {"Main"}, {"\xed\xa0\x80"}}}}), "");
}

TEST(EncodeControl, ServerMessagesReadBackAsOneObject) {
  // What the server writes must be what a strict reader accepts, "t" and all.
  const std::string datagrams[] = {
      encodeControl(SimpleMsg{"pong", std::nullopt}),
      encodeControl(WelcomeMsg{9, "Sound", 3, 3}),
      encodeControl(RosterMsg{{{9, "\U0001F468\u200D\U0001F469\u200D\U0001F467", "Sound"}}}),
      encodeControl(ConfigMsg{defaultConfig().channels, defaultConfig().roles}),
  };
  const char* types[] = {"pong", "welcome", "roster", "config"};
  for (std::size_t i = 0; i < std::size(datagrams); ++i) {
    const auto& d = datagrams[i];
    ASSERT_FALSE(d.empty());
    EXPECT_EQ(d[0], '\x01');
    const auto decoded = decodeIncoming(asBytes(std::string_view(d).substr(1)));
    ASSERT_TRUE(decoded.has_value()) << d;
    EXPECT_EQ(decoded->t, types[i]);
  }
}

}  // namespace
}  // namespace parlavox
