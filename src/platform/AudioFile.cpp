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

AudioReadResult readAudioFile(const std::string& path) {
  AudioReadResult result;
  SF_INFO info{};
  std::unique_ptr<SNDFILE, SndfileCloser> file(sf_open(path.c_str(), SFM_READ, &info));
  if (!file) {
    result.status = AudioReadResult::Status::openFailed;
    result.error = sf_strerror(nullptr);
    return result;
  }
  result.sampleRate = info.samplerate;
  result.channels = info.channels;
  if (info.channels <= 0 || info.frames < 0 ||
      info.frames > std::numeric_limits<std::uint32_t>::max()) {
    result.status = AudioReadResult::Status::tooLarge;
    return result;
  }
  const auto frames = static_cast<std::size_t>(info.frames);
  const auto channels = static_cast<std::size_t>(info.channels);
  if (frames > std::numeric_limits<std::size_t>::max() / sizeof(float) / channels) {
    result.status = AudioReadResult::Status::tooLarge;
    return result;
  }
  result.samples.resize(frames * channels);
  // libsndfile scales integer samples to [-1, 1) here, so 16-bit values come back exactly.
  const sf_count_t got = sf_readf_float(file.get(), result.samples.data(), info.frames);
  if (sf_error(file.get()) != SF_ERR_NO_ERROR || got < 0) {
    result.status = AudioReadResult::Status::readFailed;
    result.error = sf_strerror(file.get());
    result.samples.clear();
    return result;
  }
  result.frames = static_cast<std::uint32_t>(got);
  result.samples.resize(static_cast<std::size_t>(got) * channels);
  result.status = AudioReadResult::Status::ok;
  return result;
}

}  // namespace parlavox::platform
