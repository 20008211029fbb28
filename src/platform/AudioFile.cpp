#include "platform/AudioFile.h"

#include <sndfile.h>

#include <cstddef>
#include <limits>
#include <memory>

namespace parlavox::platform {
namespace {

struct SndfileCloser {
  void operator()(SNDFILE* file) const { sf_close(file); }
};

}  // namespace

Result<AudioData> readAudioFile(const std::string& path) {
  SF_INFO info{};
  const std::unique_ptr<SNDFILE, SndfileCloser> file(sf_open(path.c_str(), SFM_READ, &info));
  if (!file) {
    return Failure{sf_strerror(nullptr)};
  }
  if (info.channels <= 0 || info.frames < 0 ||
      info.frames > std::numeric_limits<std::uint32_t>::max() ||
      static_cast<std::size_t>(info.frames) > std::numeric_limits<std::size_t>::max() /
                                                  sizeof(float) /
                                                  static_cast<std::size_t>(info.channels)) {
    return Failure{"too long to hold in memory"};
  }
  AudioData audio;
  audio.sampleRate = info.samplerate;
  audio.channels = info.channels;
  const auto channels = static_cast<std::size_t>(info.channels);
  audio.samples.resize(static_cast<std::size_t>(info.frames) * channels);
  // libsndfile scales integer samples to [-1, 1) here, so 16-bit values come back exactly.
  const sf_count_t got = sf_readf_float(file.get(), audio.samples.data(), info.frames);
  if (sf_error(file.get()) != SF_ERR_NO_ERROR || got < 0) {
    return Failure{sf_strerror(file.get())};
  }
  audio.frames = static_cast<std::uint32_t>(got);
  audio.samples.resize(static_cast<std::size_t>(got) * channels);
  return audio;
}

}  // namespace parlavox::platform
