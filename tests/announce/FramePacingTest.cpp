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

}  // namespace
}  // namespace parlavox
