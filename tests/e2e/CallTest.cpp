// Calls end to end against the real server: from a UDP crew member, a crew station's WebSocket and
// show control's OSC (liblo's oscsend), to a client that understands calls and one that does not.
#include <gtest/gtest.h>

#include <iostream>

#include "client/StationClient.h"
#include "e2e/ServerFixture.h"
#include "wire/Audio.h"
#include "wire/Protocol.h"

namespace parlavox::test {
namespace {

using devkit::runProgram;
using json = nlohmann::json;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

wire::Features features(std::initializer_list<wire::Feature> list) {
  wire::Features out;
  for (const wire::Feature feature : list) {
    out.add(feature);
  }
  return out;
}

class Calls : public ServerFixture {
 protected:
  void SetUp() override { startWith(defaultConfig()); }

  // The next control message of type `t`, or null.
  static json next(client::IntercomClient& client, const std::string& t,
                   std::chrono::milliseconds wait = 3s) {
    while (auto message = client.nextControl(wait)) {
      if ((*message)["t"] == t) {
        return *message;
      }
    }
    return nullptr;
  }
};

TEST_F(Calls, ReachEveryClientAsAMessageOrAChimeWhateverTheCallersTransport) {
  auto modern = member("Modern", "Lighting", features({wire::Feature::call}));  // Main + Tech
  auto classic = member("Classic", "Sound");                                    // Main + Tech
  auto caller = member("Caller", "Stage Manager");
  const json welcome = caller->join("Caller", "Stage Manager").value_or(nullptr);  // its id again
  const auto callerID = welcome.value("id", std::uint16_t{0});
  client::StationClient station("127.0.0.1");
  const std::string join = wire::encodeControl(wire::Incoming::join("Fly", "Backstage Crew"));
  station.send(asBytes(join));
  ASSERT_TRUE(server->waitForLine("🎧 Fly joined as Backstage Crew"));
  const std::string stationCall = wire::encodeControl(wire::Incoming::call(0x3));
  struct Source {
    const char* what;
    std::function<void()> call;
    std::uint16_t caller;
    std::uint32_t share;  // for both listeners
  };
  const Source sources[] = {
      {"UDP, on Tech and channels it has no bits for",
       [&] {
         caller->sendControl({{"t", "call"}, {"mask", 0xFFFFFFF2U}});
       },
       callerID, 0x2},
      // Backstage Crew talks on Main and Backstage: its call on Main and Tech is cut to Main.
      {"a station's WebSocket", [&] { station.send(asBytes(stationCall)); }, 0, 0x1},
      {"OSC without an argument",
       [&] {
         ASSERT_EQ(runProgram({"oscsend", "127.0.0.1", "47000", "/parlavox/call/Tech"}), 0);
       },
       wire::announcerID, 0x2},
  };
  std::uint16_t lastSeq = 0;
  for (const Source& source : sources) {
    const auto asked = Clock::now();
    source.call();
    const json message = next(*modern, "call");
    const auto messaged = Clock::now();
    ASSERT_FALSE(message.is_null()) << source.what;
    if (source.caller != 0) {
      EXPECT_EQ(message["id"], source.caller) << source.what;
    }
    EXPECT_EQ(message["mask"], source.share) << source.what;
    EXPECT_FALSE(modern->nextAudio(0ms)) << source.what << ": no chime for who understands calls";

    auto chime = std::vector{classic->nextAudio(5s).value_or(client::Audio{})};
    const auto chimed = Clock::now();
    for (auto& frame : audioUntilQuiet(*classic, 1s, 300ms)) {
      chime.push_back(std::move(frame));
    }
    ASSERT_EQ(chime.size(), 25U) << source.what;
    for (const auto& frame : chime) {
      EXPECT_EQ(frame.senderID, wire::announcerID) << source.what;
      EXPECT_EQ(frame.mask, source.share) << source.what;
      EXPECT_EQ(frame.seq, ++lastSeq) << source.what << ": the announcer's numbers, run on";
    }
    EXPECT_TRUE(next(*classic, "call", 0ms).is_null()) << source.what;
    if (source.caller == callerID) {
      EXPECT_FALSE(caller->nextAudio(0ms)) << "no caller hears its own chime";
    }
    // A figure for the record, not a bound: loaded machines run the sanitizers' builds.
    std::cout << source.what << ": call message after "
              << std::chrono::duration<double, std::milli>(messaged - asked).count()
              << " ms, chime's first frame after about "
              << std::chrono::duration<double, std::milli>(chimed - asked).count() << " ms\n";
  }
  EXPECT_EQ(server->count("📞 Caller (Stage Manager) called Tech"), 1U);
  EXPECT_EQ(server->count("📞 Fly (Backstage Crew) called Main"), 1U);
  EXPECT_EQ(server->count("📞 Show control called Tech"), 1U);
  EXPECT_EQ(server->standardError(), "");
}

// The words of each announcement as it starts to play, not when it is asked for; a chime asked for
// meanwhile waits for the gap, and a caller leaning on the key makes three calls, not six.
TEST_F(Calls, WaitForTheAnnouncementsGapAndAreLimitedAndTheWordsComeAsItPlays) {
  auto reader = member("Reader", "Lighting", features({wire::Feature::text}));  // Main + Tech
  auto classic = member("Classic", "Sound");
  auto caller = member("Caller", "Stage Manager", features({wire::Feature::call}));
  for (const char* text : {"One", "Two"}) {
    ASSERT_EQ(runProgram({"oscsend", "127.0.0.1", "47000", "/parlavox/say", "s", text}), 0);
  }
  // The reader's datagrams in order, each text just before its announcement's first frame, up to
  // `last` (or a pause); the calls go out while the second announcement plays.
  std::vector<std::string> order;
  const auto read = [&](const std::string& last) {
    while (auto datagram = reader->receive(1500ms)) {
      if (client::Audio::parse(*datagram)) {
        if (order.empty() || order.back() != "frames") {
          order.emplace_back("frames");
        }
      } else if (const auto message = json::parse(datagram->begin() + 1, datagram->end());
                 message["t"] != "roster") {
        order.push_back(message.dump());
        if (order.back() == last) {
          return;
        }
      }
    }
  };
  const std::string two = R"({"mask":3,"t":"announce","text":"Two"})";
  read(two);
  for (int i = 0; i < 6; ++i) {
    caller->sendControl({{"t", "call"}, {"mask", 0x2}});
  }
  read("");
  EXPECT_EQ(order, (std::vector<std::string>{R"({"mask":3,"t":"announce","text":"One"})", "frames",
                                             two, "frames"}));

  // Announcements under mask 0xF, chimes under the Sound's share of Tech: never interleaved.
  std::string masks;
  for (const auto& frame : audioUntilQuiet(*classic, 1s, 1500ms)) {
    if (masks.empty() || masks.back() != (frame.mask == 0xF ? 'A' : 'C')) {
      masks += frame.mask == 0xF ? 'A' : 'C';
    }
  }
  EXPECT_EQ(masks, "AC");
  EXPECT_EQ(server->count("📞 Caller (Stage Manager) called Tech"), 3U);
  EXPECT_EQ(server->standardError(), "");
}

}  // namespace
}  // namespace parlavox::test
