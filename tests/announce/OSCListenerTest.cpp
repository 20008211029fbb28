#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "announce/OSCListener.h"
#include "fakes/FakeConsole.h"
#include "fakes/FakeDatagramReceiver.h"

namespace parlavox {
namespace {

using namespace std::string_literals;

// One OSC string field: the bytes, a zero byte, then zero padding to a multiple of four.
std::string field(std::string_view text) {
  std::string out(text);
  out.push_back('\0');
  while (out.size() % 4 != 0) {
    out.push_back('\0');
  }
  return out;
}

// A well-formed message with one string argument (and whatever tags are given).
std::string message(std::string_view address, std::string_view tags, std::string_view text) {
  return field(address) + field(tags) + field(text);
}

std::optional<OSCMessage> parse(const std::string& datagram) {
  return OSCListener::parse(asBytes(datagram));
}

std::optional<OSCMessage> accepted(std::string address, std::string text) {
  return OSCMessage{std::move(address), std::move(text)};
}

TEST(OSCListenerParse, FollowsTheLayoutOfAMessage) {
  struct Case {
    const char* name;
    std::string datagram;
    std::optional<OSCMessage> expected;
  };
  const Case cases[] = {
      {"string argument", message("/parlavox/say", ",s", "hello"),
       accepted("/parlavox/say", "hello")},
      {"later arguments ignored (si)", message("/a", ",si", "hello") + "\0\0\0\x07"s,
       accepted("/a", "hello")},
      {"later arguments need not be there", message("/a", ",sf", "x"), accepted("/a", "x")},

      // Address lengths: 1 to 3 bytes take 4, exactly 4 take 8.
      {"3-byte address takes 4", "/ab\0,s\0\0x\0\0\0"s, accepted("/ab", "x")},
      {"4-byte address takes 8", "/abc\0\0\0\0,s\0\0x\0\0\0"s, accepted("/abc", "x")},
      {"4-byte address given only 5 bytes", "/abc\0,s\0\0x\0\0\0"s, std::nullopt},

      // Type tags.
      {"first argument an int", message("/a", ",is", "x"), std::nullopt},
      {"no arguments", message("/a", ",", "x"), std::nullopt},
      {"type tags without comma", message("/a", "s", "x"), std::nullopt},
      {"no type tag string at all", field("/a"), std::nullopt},
      {"type tag string without zero byte", "/a\0\0,s"s, std::nullopt},

      // The text.
      {"empty text", "/a\0\0,s\0\0\0\0\0\0"s, accepted("/a", "")},
      {"text zero byte is last byte, no padding", "/a\0\0,s\0\0hello\0"s, accepted("/a", "hello")},
      {"text without zero byte", "/a\0\0,s\0\0hello"s, std::nullopt},
      {"text missing", "/a\0\0,s\0\0"s, std::nullopt},
      {"text keeps spaces and UTF-8", message("/a", ",s", "  Places, 🎭 please "),
       accepted("/a", "  Places, 🎭 please ")},

      // Address checks.
      {"address without slash", message("parlavox/say", ",s", "x"), std::nullopt},
      {"empty address", message("", ",s", "x"), std::nullopt},
      {"bundle", "#bundle\0"s + "\0\0\0\0\0\0\0\x01"s + "\0\0\0\x10"s + message("/a", ",s", "x"),
       std::nullopt},
      {"empty datagram", ""s, std::nullopt},

      // Senders that leave out the padding after the address.
      {"unpadded address, tags read from wrong place", "/abcde\0,s\0\0hi\0\0"s, std::nullopt},
      {"unpadded address whose bytes happen to line up", "/a\0,,s\0\0hi\0"s, accepted("/a", "hi")},

      // Padding is skipped, not checked.
      {"non-zero padding bytes", "/a\0X,s\0Yhi\0Z"s, accepted("/a", "hi")},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(parse(c.datagram), c.expected) << c.name;
  }
}

// Ill-formed UTF-8 in the text is repaired, one U+FFFD per maximal subpart, and still accepted.
// The address is decoded the same way, and a repaired address still counts when it begins "/".
TEST(OSCListenerParse, RepairsTextAndAddress) {
  const std::string bad = "\xEF\xBF\xBD";  // U+FFFD
  const std::pair<std::string, std::string> cases[] = {
      {"R\xC3\xA9gie", "R\xC3\xA9gie"},
      {"\xF4\x8F\xBF\xBF", "\xF4\x8F\xBF\xBF"},  // the highest code point
      {"\xFF", bad},
      {"\xE0\x80\xAF", bad + bad + bad},            // overlong
      {"\xED\xA0\x80", bad + bad + bad},            // surrogate
      {"\xF4\x90\x80\x80", bad + bad + bad + bad},  // above U+10FFFF
      {"ok\xF0\x9F\x98", "ok" + bad},               // cut short at the end
      {"\x61\xF1\x80\x80\xE1\x80\xC2\x62\x80\x63\x80\xBF\x64",
       "a" + bad + bad + bad + "b" + bad + "c" + bad + bad + "d"},
  };
  for (const auto& [raw, decoded] : cases) {
    EXPECT_EQ(parse(message("/a", ",s", raw)), accepted("/a", decoded)) << raw;
    EXPECT_EQ(parse(message("/" + raw, ",s", "x")), accepted("/" + decoded, "x")) << raw;
  }
}

// "Begins with" and "first character" are about whole characters, so a combining mark glued onto
// "/" or onto a type tag makes a different character.
TEST(OSCListenerParse, ComparesWholeCharacters) {
  EXPECT_EQ(parse(message("/\xCC\x81x", ",s", "x")), std::nullopt);
  EXPECT_EQ(parse(message("/a", ",\xCC\x81s", "x")), std::nullopt);
  EXPECT_EQ(parse(message("/a", ",s\xCC\x81", "x")), std::nullopt);
  // A stray byte after "s" is a character of its own: the first tag is still "s".
  EXPECT_EQ(parse(message("/a", ",s\xFF", "x")), accepted("/a", "x"));
  EXPECT_EQ(parse(message("\xFF/a", ",s", "x")), std::nullopt);
}

// --- The listener ------------------------------------------------------------------------------

class OSCListenerStart : public testing::Test {
 protected:
  void startAndCollect(std::uint16_t port = 47000) {
    listener_.setOnMessage([this](const std::string& address, const std::string& text) {
      received_.push_back({address, text});
    });
    listener_.start(port);
    ASSERT_NE(network_.last, nullptr);
  }
  void deliver(const std::string& datagram) { network_.last->deliver(asBytes(datagram)); }

  test::FakeDatagramNetwork network_;
  test::FakeConsole console_;
  OSCListener listener_{network_, console_};
  std::vector<OSCMessage> received_;
};

TEST_F(OSCListenerStart, HandsOverAcceptedMessagesInOrderAndDropsTheRestSilently) {
  startAndCollect(47123);
  EXPECT_EQ(network_.ports, std::vector<std::uint16_t>{47123});
  EXPECT_TRUE(network_.last->started());
  deliver(message("/parlavox/say", ",s", "Places please"));
  for (const std::string& bad : {""s, message("/parlavox/say", ",i", "x"), "#bundle\0"s}) {
    deliver(bad);
  }
  deliver(message("/parlavox/say/Tech", ",si", "Standby cue 12") + "\0\0\0\x0C"s);
  EXPECT_EQ(received_, (std::vector<OSCMessage>{{"/parlavox/say", "Places please"},
                                                {"/parlavox/say/Tech", "Standby cue 12"}}));
  EXPECT_TRUE(console_.lines().empty());
}

// The handler is read afresh for every message: none set drops it, and a handler may replace
// itself while it runs.
TEST_F(OSCListenerStart, UsesWhicheverHandlerIsSetWhenAMessageArrives) {
  std::vector<std::string> seen;
  listener_.start(47000);
  deliver(message("/a", ",s", "nobody hears this"));
  listener_.setOnMessage([&](const std::string&, const std::string& text) {
    seen.push_back("old:" + text);
    listener_.setOnMessage(
        [&seen](const std::string&, const std::string& later) { seen.push_back("new:" + later); });
  });
  deliver(message("/a", ",s", "1"));
  deliver(message("/a", ",s", "2"));
  EXPECT_EQ(seen, (std::vector<std::string>{"old:1", "new:2"}));
  EXPECT_TRUE(console_.lines().empty());
}

TEST_F(OSCListenerStart, ReportsAFailureOfTheListener) {
  startAndCollect();
  network_.last->fail("Network is down");
  EXPECT_EQ(console_.lines(),
            std::vector<std::string>{"⚠️  OSC listener failed: Network is down"});
  EXPECT_TRUE(received_.empty());
}

TEST_F(OSCListenerStart, ThrowsWhenThePortCannotBeBound) {
  network_.busy = {47000};
  EXPECT_THROW(listener_.start(47000), std::system_error);
  EXPECT_EQ(network_.last, nullptr);
  EXPECT_TRUE(console_.lines().empty());
}

}  // namespace
}  // namespace parlavox
