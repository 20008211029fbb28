#include "devkit/TempDir.h"

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <thread>

namespace parlavox::devkit {

TempDir::TempDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "parlavox-test-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) {
    throw std::runtime_error("mkdtemp failed");
  }
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::vector<std::string> TempDir::entries() const {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(path_)) {
    names.push_back(entry.path().filename().string());
  }
  return names;
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void writeFile(const std::string& path, std::string_view content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
  if (!out) {
    throw std::runtime_error("cannot write " + path);
  }
}

std::string waitForLineIn(const std::string& path, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    std::string content = readFile(path);
    if (content.ends_with('\n')) {
      return content;
    }
    if (std::chrono::steady_clock::now() >= deadline) {
      return {};
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

std::string writeScript(const std::string& path, std::string_view body) {
  writeFile(path, "#!/bin/sh\n" + std::string(body) + "\n");
  ::chmod(path.c_str(), 0755);
  return path;
}

}  // namespace parlavox::devkit
