// OSC in, frames out: the announcements with a fake port, a speaker the test plays, and the
// simulated loop between them, so the handoff from the speaker's thread is seen without threads.
#include <gtest/gtest.h>

#include "announce/AnnouncementCommand.h"
#include "announce/Announcements.h"
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
  };
  for (const auto& c : cases) {
    const AnnouncementTarget target = resolveAnnouncement(c.address, c.channels);
    EXPECT_EQ(target.kind, c.kind) << c.address;
    EXPECT_EQ(target.mask, c.mask) << c.address;
    EXPECT_EQ(target.channel, c.channel) << c.address;
  }
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
  std::vector<std::string> spoken;
  std::vector<FrameHandler> handlers;
  std::vector<DoneHandler> done;
};

class AnnouncementsTest : public testing::Test {
 protected:
  void SetUp() override {
    announcements =
        Announcements::create(Show(defaultConfig()), loop, network, console, speaker,
                              [this](std::uint32_t mask, Bytes head, Bytes body) {
                                Datagram datagram(head.begin(), head.end());
                                datagram.insert(datagram.end(), body.begin(), body.end());
                                sent.emplace_back(mask, std::move(datagram));
                              });
    announcements->start();
  }
  void osc(const std::string& address, const std::string& text) {
    network.datagrams->deliver(wire::OSCMessage{address, text}.encode());
  }

  test::FakeClock clock;
  test::SimulatedLoop loop{clock};
  test::FakeNetwork network;
  test::FakeConsole console;
  FakeSpeaker speaker;
  std::vector<std::pair<std::uint32_t, Datagram>> sent;
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

TEST_F(AnnouncementsTest, FramesReachTheLoopNumberedUnderTheAnnouncersId) {
  osc("/parlavox/say/Green Room", "Beginners please");
  osc("/parlavox/say", "Places please");
  const std::vector<std::uint8_t> frame(640, 0x11);
  speaker.handlers[0](frame);
  speaker.handlers[0](frame);
  EXPECT_TRUE(sent.empty()) << "nothing leaves the speaker's thread but a posted task";
  loop.runPosted();
  speaker.handlers[1](frame);
  loop.runPosted();
  ASSERT_EQ(sent.size(), 3U);
  EXPECT_EQ(sent[0].first, 0x8U);
  EXPECT_EQ(Datagram(sent[0].second.begin(), sent[0].second.begin() + 9),
            (Datagram{0x02, 0xFF, 0xFF, 0x08, 0, 0, 0, 0x01, 0x00}));
  EXPECT_EQ(sent[2].first, 0xFU);
  EXPECT_EQ(wire::AudioHeader::read(sent[2].second)->seq, 3) << "seq counts every frame";
  EXPECT_EQ(sent[2].second.size(), 649U);

  // What the monitor shows: the one being spoken first, gone once the loop hears it is over.
  EXPECT_EQ(announcements->pending(),
            (std::deque<std::string>{"Beginners please", "Places please"}));
  speaker.done[0]();
  EXPECT_EQ(announcements->pending().size(), 2U);
  loop.runPosted();
  EXPECT_EQ(announcements->pending(), std::deque<std::string>{"Places please"});
  EXPECT_EQ(announcements->asked(), 2U);
}

}  // namespace
}  // namespace parlavox
