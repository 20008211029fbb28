#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "config/RolesFile.h"
#include "fakes/FakeConsole.h"
#include "support/TempDir.h"

namespace parlavox {
namespace {

namespace fs = std::filesystem;

std::string warning(const fs::path& path, const std::string& error) {
  return "⚠️  Couldn't read " + path.string() + ": " + error +
         "\n    Using built-in defaults instead.";
}

class LoadConfig : public testing::Test {
 protected:
  // Loads `path`, which must give the built-in show; returns what was printed.
  std::vector<std::string> loadDefault(const fs::path& path) {
    EXPECT_EQ(loadConfig(path.string(), console_), defaultConfig()) << path;
    return console_.take();
  }

  test::TempDir temp_;
  const fs::path dir_ = temp_.path();
  test::FakeConsole console_;
};

TEST_F(LoadConfig, BadFileIsLeftAloneWithAWarning) {
  struct Case {
    const char* text;
    std::string error;
  };
  const Case cases[] = {
      {R"({"channels":[],"roles":[],"oscPort":70000})",
       "oscPort: expected an integer from 0 to 65535"},
      {R"({"channels":["A"],"roles":[{"name":"R","listen":[]}]})",
       "roles[0].talk: missing (expected an array of strings)"},
      {"", decodeConfig("").error},
  };
  const auto path = dir_ / "roles.json";
  for (const auto& c : cases) {
    test::writeFile(path, c.text);
    EXPECT_EQ(loadDefault(path), std::vector<std::string>{warning(path, c.error)});
    EXPECT_EQ(test::readFile(path), c.text);
  }
}

}  // namespace
}  // namespace parlavox
