#include "platform/Resampler.h"

#include <soxr.h>

namespace parlavox::platform {

ResampleResult resampleToMono16(std::span<const float> interleaved, int channels,
                                std::size_t frames, double inputRate, double outputRate,
                                std::size_t capacity) {
  ResampleResult result;
  if (channels <= 0 || interleaved.size() / static_cast<std::size_t>(channels) < frames) {
    result.error = "input shorter than its frame count";
    return result;
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

  result.samples.resize(capacity);
  soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT32_I, SOXR_INT16_I);
  // Dither would add noise of a least significant bit to audio that is already 16-bit.
  io.flags |= SOXR_NO_DITHER;
  const soxr_quality_spec_t quality = soxr_quality_spec(SOXR_HQ, 0);
  std::size_t done = 0;
  const soxr_error_t error =
      soxr_oneshot(inputRate, outputRate, 1, mono.data(), frames, nullptr, result.samples.data(),
                   capacity, &done, &io, &quality, nullptr);
  if (error != nullptr) {
    result.error = error;
    result.samples.clear();
    return result;
  }
  result.samples.resize(done);
  result.ok = true;
  return result;
}

}  // namespace parlavox::platform
