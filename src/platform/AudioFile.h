#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace parlavox::platform {

// A whole audio file in memory: interleaved floating-point samples at the file's own rate and
// channel count.
struct AudioReadResult {
  enum class Status {
    ok,
    openFailed,  // `error` says why
    readFailed,  // `error` says why
    tooLarge,    // more frames than a 32-bit count holds, or a layout we cannot hold in memory
  };
  Status status = Status::openFailed;
  std::string error;
  double sampleRate = 0;
  int channels = 0;
  std::uint32_t frames = 0;    // frames actually read
  std::vector<float> samples;  // frames * channels values, nominally within [-1, 1]
};

// Any thread. Reads the whole file at `path` (any format the audio library knows, told apart by
// its contents, not its name).
AudioReadResult readAudioFile(const std::string& path);

}  // namespace parlavox::platform
