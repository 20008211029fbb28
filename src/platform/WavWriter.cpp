#include "platform/WavWriter.h"

#include <sndfile.h>

namespace parlavox::platform {

WavWriter::~WavWriter() {
  close();
}

bool WavWriter::open(const std::string& path, int sampleRate) {
  close();
  error_.clear();
  written_ = 0;
  SF_INFO info{};
  info.samplerate = sampleRate;
  info.channels = 1;
  info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
  file_ = sf_open(path.c_str(), SFM_WRITE, &info);
  if (file_ == nullptr) {
    error_ = sf_strerror(nullptr);
    return false;
  }
  // A listener stopped by anything short of a clean exit still leaves a playable file.
  sf_command(file_, SFC_SET_UPDATE_HEADER_AUTO, nullptr, SF_TRUE);
  return true;
}

bool WavWriter::append(std::span<const std::int16_t> samples) {
  if (file_ == nullptr) {
    error_ = "the file is not open";
    return false;
  }
  if (samples.empty()) {
    return true;
  }
  const auto wanted = static_cast<sf_count_t>(samples.size());
  const sf_count_t done = sf_write_short(file_, samples.data(), wanted);
  if (done > 0) {
    written_ += static_cast<std::uint64_t>(done);
  }
  if (done != wanted) {
    error_ = sf_strerror(file_);
    return false;
  }
  return true;
}

bool WavWriter::close() {
  if (file_ == nullptr) {
    return true;
  }
  const int status = sf_close(file_);
  file_ = nullptr;
  if (status != 0) {
    error_ = sf_error_number(status);
    return false;
  }
  return true;
}

}  // namespace parlavox::platform
