// Ids and the audio fan-out, without a server: the pure rules, table by table.
#include <gtest/gtest.h>

#include <vector>

#include "fakes/FakeNetwork.h"
#include "relay/AudioRelay.h"
#include "relay/PeerTable.h"
#include "wire/Audio.h"

namespace parlavox {
namespace {

using test::Datagram;

std::vector<JoinedPeer> holding(const std::vector<std::uint16_t>& ids) {
  std::vector<JoinedPeer> joined;
  for (const auto id : ids) {
    joined.push_back({id, 0, {}});
  }
  return joined;
}

TEST(AllocateID, FindsTheFirstFreeIdFromTheCounter) {
  struct Case {
    const char* what;
    std::vector<std::uint16_t> held;
    std::uint16_t nextID;
    std::uint16_t expected;
    std::uint16_t nextAfter;
  };
  const Case cases[] = {
      {"skips held ids to a gap", {1, 2, 4}, 1, 3, 4},
      {"never reuses sooner than the counter", {2}, 3, 3, 4},
      {"0 is skipped", {}, 0, 1, 2},
      {"0xFFFF is the announcer's, 0 is nobody's", {}, 65535, 1, 2},
      {"wraps and skips held ids", {1, 2}, 65535, 3, 4},
  };
  for (const auto& c : cases) {
    std::uint16_t next = c.nextID;
    EXPECT_EQ(allocateID(next, holding(c.held)), c.expected) << c.what;
    EXPECT_EQ(next, c.nextAfter) << c.what;
  }
}

// Channels Main, Tech, Backstage. A (id 5) talks Main+Tech and asks for all three; B listens to
// Main, C to Tech and Backstage, D to Backstage, and A to all three.
class RelayAudio : public testing::Test {
 protected:
  JoinedPeer member(std::uint64_t client, std::uint16_t id, std::uint32_t listenMask) {
    return {id, {}, listenMask, &port, &addresses.at(client - 1)};
  }
  Peer talker(bool joined, std::uint32_t talkMask) {
    Peer peer;
    peer.address = port.address(1);
    peer.id = joined ? 5 : 0;
    peer.joined = joined;
    peer.talkMask = talkMask;
    return peer;
  }

  test::FakePeerListener port;
  const std::vector<platform::PeerAddress> addresses{port.address(1), port.address(2),
                                                     port.address(3), port.address(4)};
  const std::vector<JoinedPeer> crew{member(1, 5, 0x7), member(2, 6, 0x1), member(3, 7, 0x6),
                                     member(4, 8, 0x4)};
};

TEST_F(RelayAudio, ForwardsEachReceiversShareUnderTheSendersOwnId) {
  const Datagram samples{0x10, 0xFF, 0x00, 0x7F, 0x80};
  // A claims to be someone else: the relay writes its real id.
  relayAudio(wire::encodeAudio({0xFFFF, 0x7, 42}, samples), talker(true, 0x3), crew);
  EXPECT_EQ(port.sent[2], (std::vector<Datagram>{{0x02, 0x05, 0x00, 0x01, 0x00, 0x00, 0x00, 0x2A,
                                                  0x00, 0x10, 0xFF, 0x00, 0x7F, 0x80}}));
  EXPECT_EQ(port.sent[3], std::vector<Datagram>{wire::encodeAudio({5, 0x2, 42}, samples)});
  EXPECT_TRUE(port.sent[4].empty()) << "Backstage is not A's to talk on";
  EXPECT_TRUE(port.sent[1].empty()) << "nobody hears themselves";
}

TEST_F(RelayAudio, ForwardsOnlyWhatTheRulesAllow) {
  struct Case {
    const char* what;
    bool joined;
    std::uint32_t talk;
    std::uint32_t mask;
    std::size_t samples;
    bool forwarded;
  };
  const Case cases[] = {
      {"one sample byte is enough", true, 0x1, 0x1, 1, true},
      {"a bare header is dropped", true, 0x1, 0x1, 0, false},
      {"a stranger cannot talk", false, 0x1, 0x1, 100, false},
      {"mask 0", true, 0x7, 0, 100, false},
      {"only channels outside the talk mask", true, 0x1, 0x6, 100, false},
      {"a listen-only role", true, 0, 0x7, 100, false},
      {"a large datagram", true, 0x1, 0x1, 60000, true},
  };
  for (const auto& c : cases) {
    port.sent.clear();
    const Datagram in = wire::encodeAudio({0, c.mask, 1}, Datagram(c.samples, 0x55));
    relayAudio(in, talker(c.joined, c.talk), crew);
    EXPECT_EQ(port.sent[2].size(), c.forwarded ? 1U : 0U) << c.what;
    EXPECT_TRUE(port.sent[2].empty() || port.sent[2][0].size() == in.size()) << c.what;
  }
}

}  // namespace
}  // namespace parlavox
