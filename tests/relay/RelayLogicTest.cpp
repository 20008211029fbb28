// Ids, masks, the audio relay and the roster, without a server or a socket.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "fakes/FakeConsole.h"
#include "fakes/FakeServerPlatform.h"
#include "relay/AudioRelay.h"
#include "relay/ChannelMask.h"
#include "relay/PeerIds.h"
#include "relay/Roster.h"

namespace parlavox {
namespace {

using test::Datagram;
using test::FakeFlow;

std::shared_ptr<Peer> addPeer(PeerTable& peers, std::uint16_t id, std::uint32_t talk = 0,
                              std::uint32_t listen = 0, bool joined = true) {
  auto peer = std::make_shared<Peer>();
  const auto key = static_cast<std::uint64_t>(peers.size() + 1);
  peer->conn = std::make_shared<FakeFlow>(key);
  peer->id = joined ? id : 0;
  peer->joined = joined;
  peer->talkMask = talk;
  peer->listenMask = listen;
  peer->name = "peer" + std::to_string(id);
  peer->role = "Role";
  peers.emplace(key, peer);
  return peer;
}

const std::vector<Datagram>& sentTo(const std::shared_ptr<Peer>& peer) {
  return static_cast<FakeFlow&>(*peer->conn).sent;
}

// --- peer ids ---

TEST(AllocateID, FindsTheFirstFreeIdFromTheCounter) {
  struct Case {
    const char* what;
    std::vector<std::uint16_t> held;
    std::uint16_t nextID;
    std::uint16_t expected;
    std::uint16_t nextAfter;
  };
  const Case cases[] = {
      {"first", {}, 1, 1, 2},
      {"skips held ids to a gap", {1, 2, 4}, 1, 3, 4},
      {"never reuses sooner than the counter", {2}, 3, 3, 4},
      {"0 is skipped", {}, 0, 1, 2},
      {"0xFFFF is the announcer's, 0 is nobody's", {}, 65535, 1, 2},
      {"wraps past the top", {1, 2}, 65534, 65534, 65535},
      {"wraps and skips held ids", {1, 2}, 65535, 3, 4},
  };
  for (const auto& c : cases) {
    PeerTable peers;
    for (auto id : c.held) {
      addPeer(peers, id);
    }
    std::uint16_t next = c.nextID;
    EXPECT_EQ(allocateID(next, peers), c.expected) << c.what;
    EXPECT_EQ(next, c.nextAfter) << c.what;
  }
}

TEST(AllocateIDFull, ReturnsNothingWhenEveryIdIsHeldAndTerminates) {
  PeerTable peers;
  for (std::uint32_t id = 1; id < 65535; ++id) {
    addPeer(peers, static_cast<std::uint16_t>(id));
  }
  std::uint16_t next = 500;
  EXPECT_EQ(allocateID(next, peers), std::nullopt);
  const std::uint16_t freed = peers.begin()->second->id;
  peers.erase(peers.begin());  // one id comes free
  EXPECT_EQ(allocateID(next, peers), freed);
}

TEST(AllocateIDUnjoined, UnjoinedPeersHoldNoId) {
  PeerTable peers;
  addPeer(peers, 1, 0, 0, /*joined=*/false);
  std::uint16_t next = 1;
  EXPECT_EQ(allocateID(next, peers), 1);
}

// --- channel masks ---

TEST(MaskFor, SetsTheBitOfEachNamedChannel) {
  struct Case {
    const char* what;
    std::vector<std::string> names;
    std::uint32_t expected;
    std::vector<std::string> warnings;
  };
  const Case cases[] = {
      {"two channels", {"Main", "Tech"}, 0x3, {}},
      {"one further up", {"Green Room"}, 0x8, {}},
      {"empty list", {}, 0, {}},
      {"a name twice sets its bit once", {"Tech", "Tech"}, 0x2, {}},
      {"a channel listed twice counts at its first position", {"Main"}, 0x1, {}},
      {"canonically equivalent spelling", {"Re\xCC\x81gie"}, 0x20, {}},
      {"unknown name", {"Foyer"}, 0, {"⚠️  Role refers to unknown channel \"Foyer\""}},
      {"case matters",
       {"main", "Tech", "main"},
       0x2,
       {"⚠️  Role refers to unknown channel \"main\"",
        "⚠️  Role refers to unknown channel \"main\""}},
  };
  const std::vector<std::string> channels{"Main",       "Tech", "Backstage",
                                          "Green Room", "Main", "R\xC3\xA9gie"};
  for (const auto& c : cases) {
    test::FakeConsole console;
    EXPECT_EQ(maskFor(c.names, channels, console), c.expected) << c.what;
    EXPECT_EQ(console.lines(), c.warnings) << c.what;
  }
}

TEST(MaskForWideShow, ChannelsFrom32OnHaveNoBit) {
  std::vector<std::string> channels;
  for (int i = 0; i < 34; ++i) {
    channels.push_back("ch" + std::to_string(i));
  }
  test::FakeConsole console;
  EXPECT_EQ(maskFor({"ch31", "ch32", "ch33"}, channels, console), 0x80000000U);
  EXPECT_TRUE(console.lines().empty());
}

// --- audio relay ---

Datagram audio(std::uint16_t sender, std::uint32_t mask, std::uint16_t seq,
               std::vector<std::uint8_t> samples) {
  Datagram d{0x02,
             static_cast<std::uint8_t>(sender),
             static_cast<std::uint8_t>(sender >> 8),
             static_cast<std::uint8_t>(mask),
             static_cast<std::uint8_t>(mask >> 8),
             static_cast<std::uint8_t>(mask >> 16),
             static_cast<std::uint8_t>(mask >> 24),
             static_cast<std::uint8_t>(seq),
             static_cast<std::uint8_t>(seq >> 8)};
  d.resize(d.size() + samples.size());
  std::copy(samples.begin(), samples.end(), d.end() - static_cast<std::ptrdiff_t>(samples.size()));
  return d;
}

TEST(RelayAudio, ForwardsEachReceiversShareWithTheSendersId) {
  // Channels Main, Tech, Backstage. A talks Main+Tech and asks for all three.
  PeerTable peers;
  auto a = addPeer(peers, 5, 0x3, 0x7);
  auto b = addPeer(peers, 6, 0, 0x1);
  auto c = addPeer(peers, 7, 0, 0x6);
  auto d = addPeer(peers, 8, 0, 0x4);
  const std::vector<std::uint8_t> samples{0x10, 0xFF, 0x00, 0x7F, 0x80};
  // A claims to be someone else: the relay writes its real id.
  relayAudio(audio(0xFFFF, 0x7, 42, samples), *a, listenersOf(peers));

  ASSERT_EQ(sentTo(b).size(), 1U);
  EXPECT_EQ(sentTo(b)[0], (Datagram{0x02, 0x05, 0x00, 0x01, 0x00, 0x00, 0x00, 0x2A, 0x00, 0x10,
                                    0xFF, 0x00, 0x7F, 0x80}));
  ASSERT_EQ(sentTo(c).size(), 1U);
  EXPECT_EQ(sentTo(c)[0], audio(5, 0x2, 42, samples));
  EXPECT_TRUE(sentTo(d).empty()) << "Backstage is not A's to talk on";
  EXPECT_TRUE(sentTo(a).empty()) << "nobody hears themselves";
}

TEST(RelayAudio, ForwardsOnlyWhatTheRulesAllow) {
  struct Case {
    const char* what;
    bool senderJoined;
    std::uint32_t talk;
    std::uint32_t mask;
    std::size_t samples;
    bool forwarded;
  };
  const Case cases[] = {
      {"one sample byte is enough", true, 0x1, 0x1, 1, true},
      {"a bare header is dropped", true, 0x1, 0x1, 0, false},
      {"a stranger cannot talk", false, 0x1, 0x1, 100, false},
      {"mask 0", true, 0xF, 0, 100, false},
      {"only channels outside the talk mask", true, 0x1, 0xE, 100, false},
      {"a listen-only role", true, 0, 0xF, 100, false},
      {"a large datagram", true, 0x1, 0x1, 60000, true},
  };
  for (const auto& c : cases) {
    PeerTable peers;
    auto sender = addPeer(peers, 1, c.talk, 0xF, c.senderJoined);
    auto listener = addPeer(peers, 2, 0, 0xF);
    auto stranger = addPeer(peers, 3, 0xF, 0xF, /*joined=*/false);
    const Datagram in = audio(0, c.mask, 1, std::vector<std::uint8_t>(c.samples, 0x55));
    relayAudio(in, *sender, listenersOf(peers));
    const auto& heard = sentTo(listener);
    EXPECT_EQ(heard.size(), c.forwarded ? 1U : 0U) << c.what;
    EXPECT_TRUE(heard.empty() || heard[0].size() == in.size()) << c.what << ": whole";
    EXPECT_TRUE(sentTo(stranger).empty()) << c.what << ": a stranger hears nothing either";
  }
}

// --- roster ---

TEST(MakeRoster, RosterAndListenersListJoinedPeersInAscendingId) {
  PeerTable peers;
  addPeer(peers, 9);
  addPeer(peers, 0, 0, 0, /*joined=*/false);
  addPeer(peers, 2);
  addPeer(peers, 5);
  const RosterMsg roster = makeRoster(peers);
  std::vector<std::uint16_t> ids;
  for (const auto& user : roster.users) {
    ids.push_back(user.id);
    EXPECT_EQ(user.name, "peer" + std::to_string(user.id));
  }
  EXPECT_EQ(ids, (std::vector<std::uint16_t>{2, 5, 9}));
  ids.clear();
  for (const Listener& listener : listenersOf(peers)) {
    ids.push_back(listener.id);
  }
  EXPECT_EQ(ids, (std::vector<std::uint16_t>{2, 5, 9})) << "the fan-outs go in the same order";
}

}  // namespace
}  // namespace parlavox
