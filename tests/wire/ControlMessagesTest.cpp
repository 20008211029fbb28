// The control messages both ways, byte for byte where the server writes them.
#include <gtest/gtest.h>

#include <string>

#include "wire/ControlMessages.h"

namespace parlavox::wire {
namespace {

std::string nested(std::string_view open, std::size_t depth) {
  std::string out;
  for (std::size_t i = 0; i < depth; ++i) {
    out += open;
  }
  return out;
}

// Built member by member: GCC 12 at -O2 takes the moved-from optionals of an aggregate built in
// one go for uninitialised strings.
Features both() {
  Features features;
  features.add(Feature::call);
  features.add(Feature::text);
  return features;
}

Incoming in(MessageType t, const std::optional<std::string>& name = std::nullopt,
            const std::optional<std::string>& role = std::nullopt) {
  Incoming message;
  message.t = t;
  message.name = name;
  message.role = role;
  return message;
}

TEST(ControlMessages, DecodeIncomingAcceptsOnlyWellFormedMessages) {
  const std::string longName(65000, 'a');
  struct Case {
    const char* label;
    std::string bytes;
    std::optional<Incoming> expected;
  };
  const Case cases[] = {
      {"hi", R"({"t":"hi"})", in(MessageType::hi)},
      {"join", R"({"t":"join","name":"Ana","role":"Lighting"})",
       in(MessageType::join, "Ana", "Lighting")},
      {"nullNameAndRole", R"({"t":"join","name":null,"role":null})", in(MessageType::join)},
      {"typeNamesNoType", R"({"t":"HI"})", std::nullopt},
      {"extraKeysIgnored",
       R"({"t":"join","role":"Lighting","x":[1,{"y":null}],"name":"B","z":true})",
       in(MessageType::join, "B", "Lighting")},
      {"escapesAndUnicode",
       R"({"t":"join","name":"R\u00e9gie \"1\"\/\ud83d\udc4d","role":"Son/Vid\u00e9o"})",
       in(MessageType::join, "R\u00e9gie \"1\"/\U0001F44D", "Son/Vid\u00e9o")},
      {"bracketsInsideStringsAreText", R"({"t":"hi","name":"\")" + nested("[{", 5000) + R"("})",
       in(MessageType::hi, "\"" + nested("[{", 5000))},
      {"lastDuplicateWinsBadType", R"({"t":"ping","t":5})", std::nullopt},
      {"largeValidPayload", R"({"t":"join","name":")" + longName + R"("})",
       in(MessageType::join, longName)},
      // Features are read leniently: what names none is nothing, as for an older client.
      {"features", R"({"t":"join","role":"S","features":["text","beam",7,"call","text"]})",
       Incoming::join(std::nullopt, "S", both())},
      {"featuresNotAList", R"({"t":"join","role":"S","features":"call"})",
       in(MessageType::join, std::nullopt, "S")},
      {"call", R"({"t":"call","mask":4294967295})", Incoming::call(0xFFFFFFFF)},
      {"callMaskTooWide", R"({"t":"call","mask":4294967296})", std::nullopt},
      {"callWithoutMask", R"({"t":"call"})", in(MessageType::call)},
      {"maskOfAnotherMessageIgnored", R"({"t":"ping","mask":"x"})", in(MessageType::ping)},
      {"empty", "", std::nullopt},
      {"trailingNul", std::string(R"({"t":"hi"})") + '\0', std::nullopt},
      {"invalidUtf8InString", "{\"t\":\"hi\",\"name\":\"\xff\"}", std::nullopt},
      {"rawControlCharacter", "{\"t\":\"h\ni\"}", std::nullopt},
      {"deepUnderValidMessage",
       R"({"t":"hi","x":)" + nested("[", 100000) + nested("]", 100000) + "}", std::nullopt},
      {"datagramOfGarbage", std::string(65507, '\xff'), std::nullopt},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(decodeIncoming(asBytes(c.bytes)), c.expected) << c.label;
  }
}

TEST(ControlMessages, EncodeWritesCompactJsonInFieldOrder) {
  const auto control = [](std::string_view json) { return "\x01" + std::string(json); };
  const std::pair<std::string, std::string> cases[] = {
      {encodeControl(SimpleMsg{MessageType::pong, std::nullopt}), control(R"({"t":"pong"})")},
      {encodeControl(SimpleMsg{MessageType::error, "That role no longer exists. Pick another."}),
       control(R"({"t":"error","reason":"That role no longer exists. Pick another."})")},
      {encodeControl(WelcomeMsg{65535, "Director (listen only)", 0, 0xFFFFFFFF}),
       control(R"json({"t":"welcome","id":65535,"role":"Director (listen only)",)json"
               R"("talkMask":0,"listenMask":4294967295})")},
      {encodeControl(RosterMsg{{{1, "Ana", "Lighting"}, {2, "R\u00e9gie \"B\"/\U0001F3AD", "S"}}}),
       control(R"({"t":"roster","users":[{"id":1,"name":"Ana","role":"Lighting"},)"
               R"({"id":2,"name":"R)"
               "\u00e9gie \\\"B\\\"/\U0001F3AD"
               R"(","role":"S"}]})")},
      {encodeControl(ConfigMsg{{"Main", "Green Room"}, {{"Director", {}, {"Main"}}}}),
       control(R"({"t":"config","channels":["Main","Green Room"],"roles":[)"
               R"({"name":"Director","talk":[],"listen":["Main"]}]})")},
      {encodeControl(Incoming::join(std::nullopt, "Sound")),
       control(R"({"t":"join","role":"Sound"})")},
      {encodeControl(Incoming::join("A", "Sound", both())),
       control(R"({"t":"join","name":"A","role":"Sound","features":["call","text"]})")},
      {encodeControl(CallMsg{0xFFFF, 5}), control(R"({"t":"call","id":65535,"mask":5})")},
      {encodeControl(AnnounceMsg{"Places", 1}),
       control(R"({"t":"announce","text":"Places","mask":1})")},
      // Text that is not valid UTF-8 gives nothing to send.
      {encodeControl(SimpleMsg{MessageType::error, "\xff"}), ""},
      {encodeControl(ConfigMsg{{"Main"}, {{"R", {"Main"}, {"\xed\xa0\x80"}}}}), ""},
  };
  for (const auto& [encoded, expected] : cases) {
    EXPECT_EQ(encoded, expected);
  }
}

TEST(ControlMessages, ServerMessagesReadBackAsWrittenAndMalformedOnesAreRefused) {
  const ServerMessage messages[] = {
      ConfigMsg{{"Main", "Tech"}, {{"R\u00e9gie", {"Main"}, {}}}},
      WelcomeMsg{9, "Sound", 3, 0xFFFFFFFF},
      SimpleMsg{MessageType::error, "The intercom is full."},
      RosterMsg{{{9, "\U0001F468\u200D\U0001F469\u200D\U0001F467", "Sound"}}},
      CallMsg{7, 0x80000001},
      AnnounceMsg{"Beginners, \"please\"", 2},
  };
  for (const auto& message : messages) {
    const std::string datagram =
        std::visit([](const auto& m) { return encodeControl(m); }, message);
    EXPECT_EQ(decodeServerMessage(asBytes(datagram).subspan(1)), message) << datagram;
  }
  for (const char* text : {
           R"({"t":"config","channels":["Main",3],"roles":[]})",
           R"({"t":"config","channels":[],"roles":[{"name":"A","talk":"Main","listen":[]}]})",
           R"({"t":"welcome","id":70000,"role":"R","talkMask":1,"listenMask":1})",
           R"({"t":"roster","users":[{"id":"1","name":"A","role":"R"}]})",
           R"({"t":"roster","users":[{"id":1,"role":"R"}]})",
           R"({"t":"error","reason":5})",
           R"({"t":"call","id":1})",
           R"({"t":"announce","mask":1})",
           R"({"type":"pong"})",
       }) {
    EXPECT_EQ(decodeServerMessage(asBytes(text)), std::nullopt) << text;
  }
}

}  // namespace
}  // namespace parlavox::wire
