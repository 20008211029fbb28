#include "platform/TempFile.h"

#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <random>

namespace parlavox::platform {

TempFile::TempFile(const std::string& directory, const std::string& name)
    : path_(directory.empty() ? temporaryDirectory() : directory) {
  if (path_.back() != '/') {
    path_.push_back('/');
  }
  path_.append(name);
}

TempFile::~TempFile() {
  ::unlink(path_.c_str());
}

std::string TempFile::temporaryDirectory() {
  // Read each time: the directory is the process's current choice, not the one at start-up.
  const char* dir = std::getenv("TMPDIR");  // NOLINT(concurrency-mt-unsafe): nobody sets it
  if (dir != nullptr && *dir != '\0') {
    return dir;
  }
  return "/tmp";
}

std::string TempFile::randomUuid() {
  // random_device reads the kernel's generator (getrandom); names need to be unpredictable and
  // unique, not cryptographic.
  std::random_device source;
  std::array<std::uint8_t, 16> bytes{};
  for (std::size_t i = 0; i < bytes.size(); i += 4) {
    const auto word = source();
    for (std::size_t j = 0; j < 4; ++j) {
      bytes[i + j] = static_cast<std::uint8_t>(word >> (8 * j));
    }
  }
  bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);  // version 4
  bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);  // RFC 4122 variant
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string text;
  text.reserve(36);
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) {
      text.push_back('-');
    }
    text.push_back(kHex[bytes[i] >> 4]);
    text.push_back(kHex[bytes[i] & 0x0F]);
  }
  return text;
}

}  // namespace parlavox::platform
