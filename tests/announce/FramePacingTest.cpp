#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <limits>
#include <vector>

#include "announce/FramePacing.h"
#include "fakes/FakeClock.h"

namespace parlavox {
namespace {

using std::chrono::milliseconds;
using test::FakeClock;

struct CapacityCase {
  double rate = 0;
  std::uint64_t frames = 0;
  std::optional<std::uint32_t> expected;
};

TEST(ConvertedCapacity, FollowsRatioTimesFramesPlusMargin) {
  const CapacityCase cases[] = {
      {22050.0, 100000, 72594},  // 72594.36 truncated
      {16000.0, 0, 32},
      {0.0, 100, std::nullopt},
      {-16000.0, 100, std::nullopt},
      {1.0, std::numeric_limits<std::uint32_t>::max(), std::nullopt},
      {16000.0, std::numeric_limits<std::uint32_t>::max() - 32,
       std::numeric_limits<std::uint32_t>::max()},
      {std::numeric_limits<double>::quiet_NaN(), 100, std::nullopt},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(convertedCapacity(c.rate, c.frames), c.expected)
        << "rate " << c.rate << ", frames " << c.frames;
  }
}

std::vector<std::int16_t> ramp(std::size_t count) {
  std::vector<std::int16_t> samples(count);
  for (std::size_t i = 0; i < count; ++i) {
    samples[i] = static_cast<std::int16_t>(static_cast<int>(i % 65536) - 32768);
  }
  return samples;
}

// What each call of onFrame saw: the frame and the clock's reading at that moment.
struct Seen {
  std::vector<std::vector<std::uint8_t>> frames;
  std::vector<platform::MonoTime> times;
};

TEST(StreamFrames, SendsWholeFramesOnlyAndDropsTheRemainder) {
  for (const std::size_t count : {0U, 1U, 319U, 320U, 321U, 639U, 640U, 320U * 7 + 5}) {
    FakeClock clock;
    const auto samples = ramp(count);
    Seen seen;
    const auto elapsed = streamFrames(
        samples, clock, [&](Bytes frame) { seen.frames.emplace_back(frame.begin(), frame.end()); });
    ASSERT_EQ(seen.frames.size(), count / 320) << count << " samples";
    for (std::size_t k = 0; k < seen.frames.size(); ++k) {
      ASSERT_EQ(seen.frames[k].size(), 640U);
      EXPECT_EQ(seen.frames[k][638] | seen.frames[k][639] << 8,
                static_cast<std::uint16_t>(samples[k * 320 + 319]))
          << "frame " << k << " ends on its own last sample";
    }
    EXPECT_EQ(elapsed, milliseconds(20) * static_cast<int>(count / 320));
  }
}

TEST(StreamFrames, WritesSamplesLowByteFirst) {
  std::vector<std::int16_t> samples(320, 0);
  samples[0] = 0x1234;
  samples[1] = -2;  // 0xFFFE
  samples[2] = std::numeric_limits<std::int16_t>::min();
  samples[3] = std::numeric_limits<std::int16_t>::max();
  FakeClock clock;
  std::vector<std::uint8_t> bytes;
  streamFrames(samples, clock, [&](Bytes frame) { bytes.assign(frame.begin(), frame.end()); });
  ASSERT_EQ(bytes.size(), 640U);
  const std::vector<std::uint8_t> head(bytes.begin(), bytes.begin() + 10);
  EXPECT_EQ(head,
            (std::vector<std::uint8_t>{0x34, 0x12, 0xFE, 0xFF, 0x00, 0x80, 0xFF, 0x7F, 0, 0}));
}

TEST(StreamFrames, SleepsUntilAbsoluteDeadlinesFromOneStart) {
  FakeClock clock;
  const auto start = clock.now();
  Seen seen;
  streamFrames(ramp(std::size_t{320} * 5), clock,
               [&](Bytes) { seen.times.push_back(clock.now()); });
  const std::vector<platform::MonoTime> deadlines = {
      start + milliseconds(20), start + milliseconds(40), start + milliseconds(60),
      start + milliseconds(80), start + milliseconds(100)};
  EXPECT_EQ(clock.deadlines(), deadlines);
  const std::vector<platform::MonoTime> times = {start, start + milliseconds(20),
                                                 start + milliseconds(40), start + milliseconds(60),
                                                 start + milliseconds(80)};
  EXPECT_EQ(seen.times, times);
}

TEST(StreamFrames, CatchesUpAfterAStallWithoutSleepingOrSkipping) {
  FakeClock clock;
  const auto start = clock.now();
  Seen seen;
  const auto elapsed = streamFrames(ramp(std::size_t{320} * 10), clock, [&](Bytes frame) {
    seen.times.push_back(clock.now());
    seen.frames.emplace_back(frame.begin(), frame.end());
    if (seen.times.size() == 3) {
      clock.advance(milliseconds(100));  // frame 2 stalls
    }
  });
  // Frames 3 to 6 are due at 60..120 ms and the clock already reads 140 ms: they go at once. Frame
  // 6's deadline (140 ms) has been reached, so the first sleep after the stall is frame 7's.
  const std::vector<platform::MonoTime> deadlines = {
      start + milliseconds(20), start + milliseconds(40), start + milliseconds(160),
      start + milliseconds(180), start + milliseconds(200)};
  EXPECT_EQ(clock.deadlines(), deadlines);
  std::vector<platform::MonoTime> times = {start, start + milliseconds(20),
                                           start + milliseconds(40)};
  times.insert(times.end(), 5, start + milliseconds(140));
  times.push_back(start + milliseconds(160));
  times.push_back(start + milliseconds(180));
  EXPECT_EQ(seen.times, times);
  ASSERT_EQ(seen.frames.size(), 10U);
  for (std::size_t k = 0; k < 10; ++k) {
    // The ramp starts at -32768 (bytes 00 80) and climbs by one per sample.
    const auto first = static_cast<std::uint16_t>(static_cast<int>(k * 320) - 32768);
    EXPECT_EQ(seen.frames[k][0], first & 0xFF) << "frame " << k;
    EXPECT_EQ(seen.frames[k][1], first >> 8) << "frame " << k;
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
