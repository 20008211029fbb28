#pragma once

#include <string>

namespace parlavox::platform {

// A path for a file that somebody else creates; the file is removed when this object goes, on
// every path out of its scope. A failure to remove it (it may never have been created) is ignored.
class TempFile {
 public:
  // Any thread. The path of `name` inside `directory` (or inside temporaryDirectory() when
  // `directory` is empty). Nothing is created.
  TempFile(const std::string& directory, const std::string& name);
  ~TempFile();
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;

  // Any thread.
  const std::string& path() const { return path_; }

  // Any thread. $TMPDIR when set and not empty, else "/tmp".
  static std::string temporaryDirectory();
  // Any thread. A fresh random (version 4) UUID, 8-4-4-4-12 upper-case hexadecimal digits.
  static std::string randomUuid();

 private:
  std::string path_;
};

}  // namespace parlavox::platform
