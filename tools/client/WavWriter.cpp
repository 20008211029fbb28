#include "client/WavWriter.h"

#include <sndfile.h>

namespace parlavox::client {

using platform::Failure;
using platform::Result;

WavWriter::~WavWriter() {
  (void)close();
}

Result<void> WavWriter::open(const std::string& path, int sampleRate) {
  (void)close();
  written_ = 0;
  SF_INFO info{};
  info.samplerate = sampleRate;
  info.channels = 1;
  info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
  file_ = sf_open(path.c_str(), SFM_WRITE, &info);
  if (file_ == nullptr) {
    return Failure{sf_strerror(nullptr)};
  }
  // A listener stopped by anything short of a clean exit still leaves a playable file.
  sf_command(file_, SFC_SET_UPDATE_HEADER_AUTO, nullptr, SF_TRUE);
  return {};
}

Result<void> WavWriter::append(std::span<const std::int16_t> samples) {
  if (file_ == nullptr) {
    return Failure{"the file is not open"};
  }
  if (samples.empty()) {
    return {};
  }
  const auto wanted = static_cast<sf_count_t>(samples.size());
  const sf_count_t done = sf_write_short(file_, samples.data(), wanted);
  if (done > 0) {
    written_ += static_cast<std::uint64_t>(done);
  }
  if (done != wanted) {
    return Failure{sf_strerror(file_)};
  }
  return {};
}

Result<void> WavWriter::close() {
  if (file_ == nullptr) {
    return {};
  }
  const int status = sf_close(file_);
  file_ = nullptr;
  if (status != 0) {
    return Failure{sf_error_number(status)};
  }
  return {};
}

}  // namespace parlavox::client
