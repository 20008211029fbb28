#include "support/Samples.h"

#include <cmath>
#include <stdexcept>

#include "devkit/ChildProcess.h"

namespace parlavox::test {

std::vector<std::int16_t> toInt16(std::span<const float> samples) {
  std::vector<std::int16_t> out;
  out.reserve(samples.size());
  for (const float value : samples) {
    out.push_back(static_cast<std::int16_t>(std::lround(value * 32768.0F)));
  }
  return out;
}

std::string makeAudio(const std::string& path, int rate, int channels,
                      const std::vector<std::string>& synth) {
  // Rate and channels before -n, so that synth counts its length in samples at that rate.
  std::vector<std::string> argv{
      "sox", "-r",   std::to_string(rate), "-c", std::to_string(channels), "-n", "-b", "16",
      path,  "synth"};
  argv.insert(argv.end(), synth.begin(), synth.end());
  if (devkit::runProgram(argv) != 0) {
    throw std::runtime_error("sox could not make " + path);
  }
  return path;
}

}  // namespace parlavox::test
