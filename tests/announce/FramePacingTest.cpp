#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <vector>

#include "announce/FramePacing.h"
#include "fakes/FakeClock.h"

namespace parlavox {
namespace {

using std::chrono::milliseconds;
using test::FakeClock;

std::vector<std::int16_t> ramp(std::size_t count) {
  std::vector<std::int16_t> samples(count);
  for (std::size_t i = 0; i < count; ++i) {
    samples[i] = static_cast<std::int16_t>(static_cast<int>(i % 65536) - 32768);
  }
  return samples;
}

TEST(StreamFrames, SendsWholeFramesOnlyAndDropsTheRemainder) {
  for (const std::size_t count : {0U, 319U, 320U, 639U, 320U * 7 + 5}) {
    FakeClock clock;
    const auto samples = ramp(count);
    std::vector<std::vector<std::uint8_t>> frames;
    const auto elapsed = streamFrames(
        samples, clock, [&](Bytes frame) { frames.emplace_back(frame.begin(), frame.end()); });
    ASSERT_EQ(frames.size(), count / 320) << count << " samples";
    for (std::size_t k = 0; k < frames.size(); ++k) {
      ASSERT_EQ(frames[k].size(), 640U);
      EXPECT_EQ(frames[k][638] | frames[k][639] << 8,
                static_cast<std::uint16_t>(samples[k * 320 + 319]))
          << "frame " << k << " ends on its own last sample, low byte first";
    }
    EXPECT_EQ(elapsed, milliseconds(20) * static_cast<int>(count / 320));
  }
}

// Deadlines are absolute, from one start: frames that fall behind go at once, and the rest keep
// to the original grid.
TEST(StreamFrames, CatchesUpAfterAStallWithoutSleepingOrSkipping) {
  FakeClock clock;
  const auto start = clock.now();
  std::vector<platform::MonoTime> times;
  std::vector<std::uint8_t> firstBytes;
  const auto elapsed = streamFrames(ramp(std::size_t{320} * 10), clock, [&](Bytes frame) {
    times.push_back(clock.now());
    firstBytes.push_back(frame[1]);
    if (times.size() == 3) {
      clock.advance(milliseconds(100));  // frame 2 stalls
    }
  });
  // Frames 3 to 6 are due at 60..120 ms and the clock already reads 140 ms: they go at once. Frame
  // 6's deadline (140 ms) has been reached, so the first sleep after the stall is frame 7's.
  const auto at = [start](int ms) { return start + milliseconds(ms); };
  EXPECT_EQ(clock.deadlines(),
            (std::vector<platform::MonoTime>{at(20), at(40), at(160), at(180), at(200)}));
  EXPECT_EQ(times, (std::vector<platform::MonoTime>{at(0), at(20), at(40), at(140), at(140),
                                                    at(140), at(140), at(140), at(160), at(180)}));
  // Every frame in turn: the ramp's high byte starts at 0x80 and climbs by 320 / 256 per frame.
  for (std::size_t k = 0; k < 10; ++k) {
    EXPECT_EQ(firstBytes[k], static_cast<std::uint8_t>(((k * 320) >> 8) + 0x80)) << "frame " << k;
  }
  EXPECT_EQ(elapsed, milliseconds(200));
}

TEST(StreamFrames, AnOverlongStallEndsWithoutAnySleep) {
  FakeClock clock;
  const auto start = clock.now();
  int calls = 0;
  const auto elapsed = streamFrames(ramp(std::size_t{320} * 3), clock, [&](Bytes) {
    if (++calls == 1) {
      clock.advance(milliseconds(500));
    }
  });
  EXPECT_EQ(calls, 3);
  EXPECT_TRUE(clock.deadlines().empty());
  EXPECT_EQ(elapsed, milliseconds(500));
  EXPECT_EQ(clock.now(), start + milliseconds(500));
}

}  // namespace
}  // namespace parlavox
