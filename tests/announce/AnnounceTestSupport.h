#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace parlavox::test {

// A fresh directory under /tmp, removed with everything in it at the end of the test.
class ScratchDir {
 public:
  ScratchDir() {
    std::string pattern = "/tmp/parlavox-test-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) {
      throw std::runtime_error("mkdtemp failed");
    }
    path_ = pattern;
  }
  ~ScratchDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;

  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

  std::vector<std::string> entries() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(path_)) {
      names.push_back(entry.path().filename().string());
    }
    return names;
  }

 private:
  std::string path_;
};

inline void writeFile(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
  if (!out) {
    throw std::runtime_error("cannot write " + path);
  }
}

inline std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Writes an executable /bin/sh script with `body` after the interpreter line.
inline std::string writeScript(const std::string& path, const std::string& body) {
  writeFile(path, "#!/bin/sh\n" + body + "\n");
  ::chmod(path.c_str(), 0755);
  return path;
}

// True if `text` has the shape of `pattern`, where each 'X' stands for one upper-case hexadecimal
// digit and every other character for itself.
inline bool matchesHexPattern(std::string_view text, std::string_view pattern) {
  if (text.size() != pattern.size()) {
    return false;
  }
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    const bool hex = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F');
    if (pattern[i] == 'X' ? !hex : c != pattern[i]) {
      return false;
    }
  }
  return true;
}

inline constexpr std::string_view kUuidPattern = "XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX";

// Splits NUL-terminated fields, as `printf '%s\0' "$@"` writes them.
inline std::vector<std::string> splitNul(const std::string& text) {
  std::vector<std::string> fields;
  std::string::size_type from = 0;
  while (from < text.size()) {
    const auto end = text.find('\0', from);
    if (end == std::string::npos) {
      fields.push_back(text.substr(from));
      break;
    }
    fields.push_back(text.substr(from, end - from));
    from = end + 1;
  }
  return fields;
}

}  // namespace parlavox::test
