#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "platform/Result.h"

// libsndfile's handle, declared here so that users of this header need no libsndfile headers.
struct sf_private_tag;

namespace parlavox::client {

// A mono 16-bit PCM WAV file written as it goes. The header is brought up to date after every
// append, so the file on disk is a complete WAV file at all times, not only after close().
class WavWriter {
 public:
  WavWriter() = default;
  // Closes the file if still open.
  ~WavWriter();
  WavWriter(const WavWriter&) = delete;
  WavWriter& operator=(const WavWriter&) = delete;

  // The owner's thread. Creates (or truncates) `path`; an open file is closed first.
  platform::Result<void> open(const std::string& path, int sampleRate);
  // The owner's thread. Appends samples.
  platform::Result<void> append(std::span<const std::int16_t> samples);
  // The owner's thread. Finishes the file.
  platform::Result<void> close();

  std::uint64_t samplesWritten() const { return written_; }

 private:
  sf_private_tag* file_ = nullptr;
  std::uint64_t written_ = 0;
};

}  // namespace parlavox::client
