#include "announce/Chime.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "wire/Audio.h"

namespace parlavox {
namespace {

constexpr double kSeconds = 0.5;
constexpr double kSecondNoteAt = 0.2;  // the first note still rings under the second
constexpr double kGain = 0.4;      // of full scale for each note: the two together peak near 0.5
constexpr double kAttack = 0.004;  // seconds to full loudness: a strike, not a click
constexpr double kDecay = 0.12;    // seconds for a note to fall to 1/e

// One struck note at time `t` since its start: the fundamental and a quieter octave above it,
// which is what makes it sound like a bell rather than a beep.
double note(double frequency, double t) {
  if (t < 0.0) {
    return 0.0;
  }
  const double envelope = std::min(1.0, t / kAttack) * std::exp(-t / kDecay);
  const double phase = 2.0 * std::numbers::pi * frequency * t;
  return envelope * (std::sin(phase) + 0.3 * std::sin(2.0 * phase)) / 1.3;
}

}  // namespace

std::vector<std::int16_t> renderChime() {
  constexpr double kHigh = 659.26;  // E5
  constexpr double kLow = 523.25;   // C5
  const auto frames = static_cast<std::size_t>(
      std::lround(kSeconds * wire::kSampleRate / static_cast<double>(wire::kFrameSamples)));
  std::vector<std::int16_t> samples(frames * wire::kFrameSamples);
  const double fadeOut = 0.02 * wire::kSampleRate;
  for (std::size_t i = 0; i < samples.size(); ++i) {
    const double t = static_cast<double>(i) / wire::kSampleRate;
    const double tail = std::min(1.0, static_cast<double>(samples.size() - 1 - i) / fadeOut);
    const double value = kGain * (note(kHigh, t) + note(kLow, t - kSecondNoteAt)) * tail;
    samples[i] = static_cast<std::int16_t>(std::lround(std::clamp(value, -1.0, 1.0) * 32767.0));
  }
  return samples;
}

}  // namespace parlavox
