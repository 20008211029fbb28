#include <gtest/gtest.h>

#include <numeric>

#include "client/Mixer.h"

namespace parlavox::client {
namespace {

using Samples = std::vector<std::int16_t>;
constexpr std::uint64_t kSlot = Mixer::kSlotSamples;

// A frame of `length` samples counting up from `first`, so every sample says where it came from.
Samples ramp(std::int16_t first, std::size_t length = kSlot) {
  Samples out(length);
  std::iota(out.begin(), out.end(), first);
  return out;
}

Samples silence(std::size_t length) {
  return Samples(length, 0);
}

Samples concat(std::initializer_list<Samples> parts) {
  Samples out;
  for (const auto& part : parts) {
    out.insert(out.end(), part.begin(), part.end());
  }
  return out;
}

struct SumCase {
  std::vector<std::int16_t> voices;  // one sample from each talker, all landing together
  std::int16_t expected;
};

TEST(Mixer, SumsTalkersOnTheSameSlotAndClipsOnlyTheResult) {
  const std::vector<SumCase> table{
      {{30000, 30000}, 32767},
      // A loud pair and a third that cancels them: clipping the running sum would give 2767.
      {{30000, 30000, -30000}, 30000},
      {{-32768, -32768, -32768, 32767, 32767, 32767}, -3},
  };
  for (const auto& row : table) {
    Mixer mixer;
    for (std::size_t talker = 0; talker < row.voices.size(); ++talker) {
      // Arrivals spread over the slot still land on its start.
      mixer.add(static_cast<std::uint16_t>(talker + 1), 7, talker * 10,
                Samples(kSlot, row.voices[talker]));
    }
    EXPECT_EQ(mixer.takeAll(0), Samples(kSlot, row.expected)) << row.voices.size();
    EXPECT_EQ(mixer.talkers(), row.voices.size());
  }
}

// Frames arrive early, late, out of order, twice or not at all, and the sequence numbers wrap; each
// still lands in its own slot after the one before, once, with silence where one was lost.
TEST(Mixer, LaysOneTalkersFramesEndToEndBySequenceDespiteJitter) {
  Mixer mixer;
  mixer.add(4, 65533, 5, ramp(0));
  mixer.add(4, 65534, kSlot - 48, ramp(1000));  // 3 ms early
  mixer.add(4, 65534, kSlot + 5, ramp(1000));   // repeated
  mixer.add(4, 0, 3 * kSlot + 80, ramp(3000));  // 65535 is lost
  mixer.add(4, 2, 5 * kSlot + 90, ramp(5000));  // before 1
  mixer.add(4, 1, 5 * kSlot + 95, ramp(4000));
  mixer.add(4, 3, 6 * kSlot, ramp(6000));
  EXPECT_EQ(mixer.takeAll(0), concat({ramp(0), ramp(1000), silence(kSlot), ramp(3000), ramp(4000),
                                      ramp(5000), ramp(6000)}));
}

TEST(Mixer, PutsATalkerWhoPausedBackOnTheSlotOfArrival) {
  Mixer mixer;
  mixer.add(4, 1, 0, ramp(0));
  // The talker's sequence runs on, but a second passes: its own pace would put this right after
  // the first frame.
  mixer.add(4, 2, 50 * kSlot + 100, ramp(1000));
  // A sender whose sequence jumps far (a restart) is placed by arrival too.
  mixer.add(5, 1, 0, silence(kSlot));
  mixer.add(5, 30000, 52 * kSlot, ramp(2000));
  const auto out = mixer.takeAll(0);
  EXPECT_EQ(out, concat({ramp(0), silence(49 * kSlot), ramp(1000), silence(kSlot), ramp(2000)}));
}

}  // namespace
}  // namespace parlavox::client
