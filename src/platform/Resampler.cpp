#include "platform/Resampler.h"

#include <soxr.h>

namespace parlavox::platform {

Result<std::vector<std::int16_t>> resampleToMono16(std::span<const float> interleaved, int channels,
                                                   std::size_t frames, double inputRate,
                                                   double outputRate, std::size_t capacity) {
  if (channels <= 0 || interleaved.size() / static_cast<std::size_t>(channels) < frames) {
    return Failure{"input shorter than its frame count"};
  }
  const auto width = static_cast<std::size_t>(channels);
  std::vector<float> mono(frames);
  for (std::size_t f = 0; f < frames; ++f) {
    float sum = 0.0F;
    for (std::size_t c = 0; c < width; ++c) {
      sum += interleaved[f * width + c];
    }
    mono[f] = sum / static_cast<float>(channels);
  }

  std::vector<std::int16_t> samples(capacity);
  soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT32_I, SOXR_INT16_I);
  // Dither would add noise of a least significant bit to audio that is already 16-bit.
  io.flags |= SOXR_NO_DITHER;
  const soxr_quality_spec_t quality = soxr_quality_spec(SOXR_HQ, 0);
  std::size_t done = 0;
  const soxr_error_t error = soxr_oneshot(inputRate, outputRate, 1, mono.data(), frames, nullptr,
                                          samples.data(), capacity, &done, &io, &quality, nullptr);
  if (error != nullptr) {
    return Failure{error};
  }
  samples.resize(done);
  return samples;
}

}  // namespace parlavox::platform
