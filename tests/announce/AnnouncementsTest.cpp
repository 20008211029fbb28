// OSC in, frames out: the announcements with a fake port, a speaker the test plays, and the
// simulated loop between them, so the handoff from the speaker's thread is seen without threads.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include "announce/AnnouncementCommand.h"
#include "announce/Announcements.h"
#include "announce/Chime.h"
#include "fakes/FakeConsole.h"
#include "fakes/FakeNetwork.h"
#include "fakes/SimulatedLoop.h"
#include "wire/Audio.h"

namespace parlavox {
namespace {

using Kind = AnnouncementTarget::Kind;
using Lines = std::vector<std::string>;
using test::Datagram;

TEST(ResolveAnnouncement, MapsAddressesOntoTheChannels) {
  const std::vector<std::string> show = {"Main", "Tech", "Backstage", "Green Room"};
  std::vector<std::string> wide;
  for (int i = 0; i < 33; ++i) {
    wide.push_back("C" + std::to_string(i));
  }
  struct Case {
    std::vector<std::string> channels;
    std::string address;
    Kind kind;
    std::uint32_t mask;
    std::string channel;
  };
  const Case cases[] = {
      {show, "/parlavox/say", Kind::announce, 0xF, ""},
      {show, "/parlavox/say/Green Room", Kind::announce, 0x8, ""},
      {show, "/parlavox/say/tech", Kind::unknownChannel, 0, "tech"},
      {show, "/parlavox/say/Tech/extra", Kind::unknownChannel, 0, "Tech/extra"},
      {show, "/parlavox/sayx", Kind::ignore, 0, ""},
      // A combining mark glued onto the "/" makes another character: not this prefix at all.
      {show, "/parlavox/say/\xCC\x81Tech", Kind::ignore, 0, ""},
      // Channels from 32 on have no bit.
      {wide, "/parlavox/say", Kind::announce, 0xFFFFFFFF, ""},
      {wide, "/parlavox/say/C31", Kind::announce, 0x80000000, ""},
      {wide, "/parlavox/say/C32", Kind::announce, 0, ""},
      {{"A", "Tech", "Tech"}, "/parlavox/say/Tech", Kind::announce, 0x2, ""},
      {{"Main", "R\xC3\xA9gie"}, "/parlavox/say/Re\xCC\x81gie", Kind::announce, 0x2, ""},
      {show, "/parlavox/call", Kind::call, 0xF, ""},
      {show, "/parlavox/call/Backstage", Kind::call, 0x4, ""},
      {show, "/parlavox/call/Nowhere", Kind::unknownCallChannel, 0, "Nowhere"},
      {show, "/parlavox/calls", Kind::ignore, 0, ""},
      {show, "/parlavox/stop", Kind::stop, 0, ""},
  };
  for (const auto& c : cases) {
    const AnnouncementTarget target = resolveAnnouncement(c.address, c.channels);
    EXPECT_EQ(target.kind, c.kind) << c.address;
    EXPECT_EQ(target.mask, c.mask) << c.address;
    EXPECT_EQ(target.channel, c.channel) << c.address;
  }
}

// The chime's notes by their zero crossings: E5 falling to C5, silent at both ends, clear of
// clipping.
TEST(Chime, FallsFromE5ToC5InHalfASecondOfWholeFrames) {
  const std::vector<std::int16_t> chime = renderChime();
  ASSERT_EQ(chime.size(), 25 * wire::kFrameSamples);
  const auto frequency = [&](double from, double to) {
    const auto first = static_cast<std::size_t>(from * wire::kSampleRate);
    const auto last = static_cast<std::size_t>(to * wire::kSampleRate);
    int crossings = 0;
    for (std::size_t i = first + 1; i < last; ++i) {
      crossings += (chime[i - 1] < 0) != (chime[i] < 0) ? 1 : 0;
    }
    return crossings / 2.0 / (to - from);
  };
  EXPECT_NEAR(frequency(0.02, 0.18), 659.3, 10.0);
  EXPECT_NEAR(frequency(0.32, 0.45), 523.3, 10.0);
  const auto peak = *std::max_element(chime.begin(), chime.end());
  EXPECT_GT(peak, 8000);
  EXPECT_LT(peak, 24000);
  EXPECT_LT(std::abs(chime.front()) + std::abs(chime.back()), 64);
}

// Remembers what it was asked to speak; the test calls the frame handlers, as the speaker's
// thread would.
class FakeSpeaker final : public Speaker {
 public:
  void speak(std::string text, FrameHandler onFrame, DoneHandler onDone) override {
    spoken.push_back(std::move(text));
    handlers.push_back(std::move(onFrame));
    done.push_back(std::move(onDone));
  }
  void stop() override {}
  void play(Clip clip, std::chrono::milliseconds maxWait, FrameHandler onFrame) override {
    clips.push_back(std::move(clip));
    waits.push_back(maxWait);
    handlers.push_back(std::move(onFrame));
  }
  std::vector<std::string> spoken;
  std::vector<FrameHandler> handlers;  // speak()'s and play()'s, in the order asked
  std::vector<DoneHandler> done;
  std::vector<Clip> clips;
  std::vector<std::chrono::milliseconds> waits;
};

// What reaches the crew, as one line each: the announcer's frames by their mask and seq.
class FakeCrew final : public Crew {
 public:
  void sendToChannels(std::uint32_t mask, Bytes head, Bytes body) override {
    Datagram datagram(head.begin(), head.end());
    datagram.insert(datagram.end(), body.begin(), body.end());
    const auto header = wire::AudioHeader::read(datagram);
    sent.push_back(fmt::format("frame {:x} seq {} {} bytes", mask, header->seq, datagram.size()));
    frames.push_back(std::move(datagram));
  }
  void sendAnnouncementText(const std::string& text, std::uint32_t mask) override {
    sent.push_back(fmt::format("text {:x} {}", mask, text));
  }
  void callFromShowControl(std::uint32_t mask) override {
    sent.push_back(fmt::format("call {:x}", mask));
  }
  void sendChime(std::uint16_t caller, std::uint32_t mask,
                 std::span<std::uint8_t, wire::AudioHeader::kSize> head, Bytes body) override {
    const auto header = wire::AudioHeader::read(Bytes(head));
    sent.push_back(fmt::format("chime from {} {:x} under {:x} seq {} {} bytes", caller, mask,
                               header->senderID, header->seq, head.size() + body.size()));
  }
  std::vector<std::string> sent;
  std::vector<Datagram> frames;
};

class AnnouncementsTest : public testing::Test {
 protected:
  void SetUp() override {
    announcements =
        Announcements::create(Show(defaultConfig()), loop, network, console, clock, speaker, crew);
    announcements->start();
  }
  void osc(const std::string& address, const std::string& text) {
    network.datagrams->deliver(wire::OSCMessage{address, text}.encode());
  }
  // An OSC message without arguments: its address and the type tag string ",".
  void osc(const std::string& address) {
    Datagram datagram(address.begin(), address.end());
    datagram.resize((address.size() + 4) / 4 * 4, 0);
    datagram.insert(datagram.end(), {',', 0, 0, 0});
    network.datagrams->deliver(datagram);
  }

  test::FakeClock clock;
  test::SimulatedLoop loop{clock};
  test::FakeNetwork network;
  test::FakeConsole console;
  FakeSpeaker speaker;
  FakeCrew crew;
  std::shared_ptr<Announcements> announcements;
};

TEST_F(AnnouncementsTest, SpeaksWhatShowControlSaysAndReportsTheRest) {
  EXPECT_EQ(console.take(), Lines{"✅ Listening for OSC announcements on UDP port 47000"});
  osc("/parlavox/say/tech", "hello");
  osc("/parlavox/sayx", "hello");
  network.datagrams->deliver(Datagram{'#', 'b', 'u', 'n', 'd', 'l', 'e', 0});
  osc("/parlavox/say/Tech", "Standby lights");
  const std::string longest(1000, 'a');
  osc("/parlavox/say", longest);
  osc("/parlavox/say", longest + "a");
  network.datagrams->fail("Network is down");
  EXPECT_EQ(console.take(),
            (Lines{"⚠️  OSC: unknown channel \"tech\"", "📣 Announcing: \"Standby lights\"",
                   "📣 Announcing: \"" + longest + "\"",
                   "⚠️  OSC: announcement of 1001 characters refused (at most 1000)",
                   "⚠️  OSC listener failed: Network is down"}));
  EXPECT_EQ(speaker.spoken, (Lines{"Standby lights", longest}));
}

TEST_F(AnnouncementsTest, FramesReachTheLoopNumberedUnderTheAnnouncersIdWordsFirst) {
  osc("/parlavox/say/Green Room", "Beginners please");
  osc("/parlavox/say", "Places please");
  const std::vector<std::uint8_t> frame(640, 0x11);
  speaker.handlers[0](frame);
  speaker.handlers[0](frame);
  EXPECT_TRUE(crew.sent.empty()) << "nothing leaves the speaker's thread but a posted task";
  loop.runPosted();
  speaker.handlers[1](frame);
  loop.runPosted();
  EXPECT_EQ(crew.sent,
            (Lines{"text 8 Beginners please", "frame 8 seq 1 649 bytes", "frame 8 seq 2 649 bytes",
                   "text f Places please", "frame f seq 3 649 bytes"}));
  EXPECT_EQ(Datagram(crew.frames[0].begin(), crew.frames[0].begin() + 9),
            (Datagram{0x02, 0xFF, 0xFF, 0x08, 0, 0, 0, 0x01, 0x00}));

  // What the monitor shows: the one being spoken first, gone once the loop hears it is over.
  EXPECT_EQ(announcements->pending(),
            (std::deque<std::string>{"Beginners please", "Places please"}));
  speaker.done[0]();
  EXPECT_EQ(announcements->pending().size(), 2U);
  loop.runPosted();
  EXPECT_EQ(announcements->pending(), std::deque<std::string>{"Places please"});
  EXPECT_EQ(announcements->asked(), 2U);
}

// Calls need no argument; the chime is the announcer's voice too, numbered in the same run.
TEST_F(AnnouncementsTest, ShowControlCallsAndTheChimeTakesTheNextNumbers) {
  console.take();
  osc("/parlavox/call");
  osc("/parlavox/call/Tech", "any argument");
  osc("/parlavox/call/tech");
  osc("/parlavox/say/tech");  // an announcement without words is nothing, unknown channel or not
  EXPECT_EQ(console.take(), Lines{"⚠️  OSC: unknown channel \"tech\""});

  osc("/parlavox/say", "Places please");
  speaker.handlers[0](std::vector<std::uint8_t>(640, 0x11));
  announcements->ringChime(7, 0x3);
  ASSERT_EQ(speaker.clips.size(), 1U);
  EXPECT_EQ(speaker.clips[0]->size(), 25 * wire::kFrameSamples);
  EXPECT_EQ(speaker.waits[0], Announcements::kChimeWait);
  speaker.handlers[1](std::vector<std::uint8_t>(640, 0x22));
  loop.runPosted();
  EXPECT_EQ(crew.sent, (Lines{"call f", "call 2", "text f Places please", "frame f seq 1 649 bytes",
                              "chime from 7 3 under ffff seq 2 649 bytes"}));
}

}  // namespace
}  // namespace parlavox
