#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/Result.h"

namespace parlavox::platform {

// A whole audio file in memory: interleaved floating-point samples at the file's own rate and
// channel count.
struct AudioData {
  double sampleRate = 0;
  int channels = 0;
  std::uint32_t frames = 0;    // frames actually read
  std::vector<float> samples;  // frames * channels values, nominally within [-1, 1]
};

// Any thread. Reads the whole file at `path` (any format the audio library knows, told apart by
// its contents, not its name). Fails when the file cannot be opened or read, or holds more frames
// than a 32-bit count or this process's memory can take.
Result<AudioData> readAudioFile(const std::string& path);

}  // namespace parlavox::platform
