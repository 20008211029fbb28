// A peer's link health from its audio datagrams alone, times given as values.
#include <gtest/gtest.h>

#include <utility>
#include <vector>

#include "relay/LinkHealth.h"
#include "wire/Audio.h"

namespace parlavox {
namespace {

using namespace std::chrono_literals;

constexpr platform::MonoTime kStart = platform::MonoTime{} + 1h;  // on a whole second

void feed(LinkHealth& health, std::uint16_t seq, int ms, std::int16_t sample = 1000) {
  const std::vector<std::int16_t> samples(wire::kFrameSamples, sample);
  health.audio(wire::encodeAudio({7, 0x1, seq}, wire::sampleBytes(samples)),
               kStart + std::chrono::milliseconds(ms));
}

TEST(LinkHealthLoss, CountsSeqsMissingNetOfLateArrivals) {
  struct Case {
    const char* what;
    std::vector<std::uint16_t> seqs;  // 20 ms apart
    std::uint64_t received;
    std::uint64_t lost;
  };
  const Case cases[] = {
      {"in order", {10, 11, 12, 13}, 4, 0},
      {"a gap of 3", {10, 11, 15, 16}, 4, 3},
      {"a late datagram is not a loss", {10, 12, 13, 11, 14}, 5, 0},
      {"late after a gap of 89", {10, 100, 99}, 3, 88},
      {"too late to tell stays lost", {10, 100, 20}, 2, 89},
      {"twice is neither a loss nor a second receipt", {10, 11, 11, 12, 11}, 3, 0},
      {"seqs from before the first are nothing", {10, 9, 11}, 2, 0},
      {"wrap-around is in order", {65534, 65535, 0, 1}, 4, 0},
      {"a gap across the wrap", {65534, 1}, 2, 2},
      {"a client restarting its sequence", {498, 499, 500, 3, 4, 5}, 6, 0},
      {"a restart forward", {10, 11, 5000, 5001, 5003}, 5, 1},
      {"a single stray resets nothing", {10, 11, 40000, 12, 13}, 4, 0},
  };
  for (const auto& c : cases) {
    LinkHealth health;
    for (std::size_t i = 0; i < c.seqs.size(); ++i) {
      feed(health, c.seqs[i], static_cast<int>(20 * i));
    }
    EXPECT_EQ(health.received(), c.received) << c.what;
    EXPECT_EQ(health.lost(), c.lost) << c.what;
  }
}

TEST(LinkHealthLoss, LastSecondsKeepsTheCurrentSecondAndTheNineBefore) {
  LinkHealth health;
  feed(health, 10, 0);
  feed(health, 13, 20);    // 11 and 12 lost in second 0
  feed(health, 12, 500);   // late: one back
  feed(health, 16, 5000);  // 14 and 15 lost in second 5
  EXPECT_EQ(health.lastSeconds(kStart + 9999ms), (LinkHealth::Window{4, 3}));
  EXPECT_EQ(health.lastSeconds(kStart + 10s), (LinkHealth::Window{1, 2})) << "second 0 has gone";
  feed(health, 11, 16000);  // late again, with no loss left in the window to take back
  EXPECT_EQ(health.lastSeconds(kStart + 16s), (LinkHealth::Window{1, 0}));
  EXPECT_EQ(health.lost(), 2U);
}

TEST(LinkHealthJitter, MeasuresSpacingAgainstTwentyMillisecondsPerSeq) {
  struct Case {
    const char* what;
    std::vector<std::pair<int, int>> pattern;  // seqs ahead, ms later; repeated
    double atLeast;
    double atMost;
  };
  const Case cases[] = {
      {"paced", {{1, 20}}, 0, 0.01},
      {"alternately 10 and 30 ms", {{1, 10}, {1, 30}}, 5, 10},
      {"a datagram lost on the way", {{1, 20}, {2, 40}}, 0, 0.01},
      {"5 s pauses between bursts", {{1, 20}, {1, 20}, {1, 20}, {1, 5000}}, 0, 0.01},
  };
  for (const auto& c : cases) {
    LinkHealth health;
    std::uint16_t seq = 0;
    int ms = 0;
    feed(health, seq, ms);
    for (int i = 0; i < 100; ++i) {
      const auto [seqs, later] = c.pattern[static_cast<std::size_t>(i) % c.pattern.size()];
      seq = static_cast<std::uint16_t>(seq + seqs);
      feed(health, seq, ms += later);
    }
    EXPECT_GE(health.jitterMs(), c.atLeast) << c.what;
    EXPECT_LE(health.jitterMs(), c.atMost) << c.what;
  }
}

TEST(LinkHealthLevel, PeaksOverTheLastHundredMilliseconds) {
  struct Case {
    const char* what;
    std::int16_t sample;
    int ageMs;
    std::optional<double> dbfs;  // as +1 dBFS, which no level can be, when nothing
    bool talking;
  };
  const Case cases[] = {
      {"full scale", 32767, 0, 0.0, true},
      {"half scale, negative", -16384, 0, -6.02, true},
      {"still heard 80 ms later", 16384, 80, -6.02, true},
      {"silence sent", 0, 0, LinkHealth::kSilenceDbfs, true},
      {"no samples for 120 ms", 16384, 120, std::nullopt, true},
      {"no audio for 400 ms", 16384, 400, std::nullopt, false},
  };
  for (const auto& c : cases) {
    LinkHealth health;
    feed(health, 1, 0, c.sample);
    const auto now = kStart + std::chrono::milliseconds(c.ageMs);
    EXPECT_NEAR(health.levelDbfs(now).value_or(1), c.dbfs.value_or(1), 0.01) << c.what;
    EXPECT_EQ(health.talking(now), c.talking) << c.what;
  }
  EXPECT_FALSE(LinkHealth().talking(kStart));
}

}  // namespace
}  // namespace parlavox

namespace parlavox {
namespace {

// The operator's warning: up past 5% over a second or more of talking, down again once clean, and
// at most one crossing per window.
TEST(LinkHealthLoss, AlarmsCrossTheLineOncePerWindow) {
  LinkHealth health;
  std::uint16_t seq = 1;
  int ms = 0;
  const auto talk = [&](int frames, int lostEvery) {
    for (int i = 0; i < frames; ++i, ++seq, ms += 20) {
      if (lostEvery == 0 || seq % lostEvery != 0) {
        feed(health, seq, ms);
      }
    }
  };
  talk(20, 10);
  EXPECT_FALSE(health.lossAlarm(kStart + 1s)) << "too little to tell";
  talk(81, 10);
  const auto raised = health.lossAlarm(kStart + 2s);
  ASSERT_TRUE(raised);
  EXPECT_TRUE(raised->raised);
  EXPECT_NEAR(raised->ratio, 0.099, 0.001);
  EXPECT_FALSE(health.lossAlarm(kStart + 3s)) << "reported already";
  talk(600, 0);  // 12 s of clean audio
  const auto cleared = health.lossAlarm(kStart + std::chrono::milliseconds(ms));
  ASSERT_TRUE(cleared);
  EXPECT_FALSE(cleared->raised);
  EXPECT_FALSE(health.lossAlarm(kStart + std::chrono::milliseconds(ms) + 1s));
}

}  // namespace
}  // namespace parlavox
