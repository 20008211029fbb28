#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "config/RolesFile.h"
#include "fakes/FakeConsole.h"
#include "support/TempDir.h"

namespace parlavox {
namespace {

namespace fs = std::filesystem;

std::string notice(const fs::path& path) {
  return "📝 Wrote default roles to " + path.string() +
         ". Edit it and restart the server to customize.";
}

std::string warning(const fs::path& path, const std::string& error) {
  return "⚠️  Couldn't read " + path.string() + ": " + error +
         "\n    Using built-in defaults instead.";
}

class LoadConfig : public testing::Test {
 protected:
  test::TempDir temp_;
  const fs::path dir_ = temp_.path();
  test::FakeConsole console_;
};

TEST_F(LoadConfig, MissingFileIsWrittenWithTheBuiltInShow) {
  const auto path = dir_ / "roles.json";
  EXPECT_EQ(loadConfig(path.string(), console_), defaultConfig());
  EXPECT_EQ(test::readFile(path), encodeConfig(defaultConfig()));
  EXPECT_EQ(console_.lines(), std::vector<std::string>{notice(path)});
}

TEST_F(LoadConfig, ValidFileIsUsedSilently) {
  const auto path = dir_ / "show.json";
  const std::string text = R"({"show":"Hamlet","channels":["A"],"roles":[],"oscPort":9000})";
  test::writeFile(path, text);
  EXPECT_EQ(loadConfig(path.string(), console_), (Config{"Hamlet", {"A"}, {}, 9000}));
  EXPECT_TRUE(console_.lines().empty());
  EXPECT_EQ(test::readFile(path), text);
}

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
    SCOPED_TRACE(c.text);
    test::writeFile(path, c.text);
    EXPECT_EQ(loadConfig(path.string(), console_), defaultConfig());
    EXPECT_EQ(test::readFile(path), c.text);
    EXPECT_EQ(console_.take(), std::vector<std::string>{warning(path, c.error)});
  }
}

TEST_F(LoadConfig, UnreadablePathThatExistsIsNeverReplaced) {
  const auto path = dir_ / "roles.json";
  fs::create_directory(path);
  EXPECT_EQ(loadConfig(path.string(), console_), defaultConfig());
  EXPECT_TRUE(fs::is_directory(path));
  EXPECT_TRUE(fs::is_empty(path));
  EXPECT_EQ(console_.lines(), std::vector<std::string>{notice(path)});
}

TEST_F(LoadConfig, LinkToAMissingFileIsNotWrittenThrough) {
  const auto path = dir_ / "roles.json";
  const auto target = dir_ / "elsewhere.json";
  fs::create_symlink(target, path);
  EXPECT_EQ(loadConfig(path.string(), console_), defaultConfig());
  EXPECT_FALSE(fs::exists(target));
  EXPECT_TRUE(fs::is_symlink(path));
  EXPECT_EQ(console_.lines(), std::vector<std::string>{notice(path)});
}

TEST_F(LoadConfig, OversizedFileIsRefusedWithoutDecoding) {
  const auto path = dir_ / "roles.json";
  test::writeFile(path, "{");
  fs::resize_file(path, std::uintmax_t{17} * 1024 * 1024);  // sparse: cheap to make
  EXPECT_EQ(loadConfig(path.string(), console_), defaultConfig());
  EXPECT_EQ(fs::file_size(path), std::uintmax_t{17} * 1024 * 1024);
  EXPECT_EQ(console_.lines(),
            std::vector<std::string>{warning(path, "larger than 16777216 bytes")});
}

TEST_F(LoadConfig, FailedWriteStillPrintsTheNotice) {
  const auto path = dir_ / "no-such-dir" / "roles.json";
  EXPECT_EQ(loadConfig(path.string(), console_), defaultConfig());
  EXPECT_FALSE(fs::exists(path.parent_path()));
  EXPECT_EQ(console_.lines(), std::vector<std::string>{notice(path)});
}

TEST_F(LoadConfig, RelativePathIsResolvedAgainstTheWorkingDirectory) {
  const auto before = fs::current_path();
  fs::current_path(dir_);
  const Config loaded = loadConfig("roles.json", console_);
  const auto lines = console_.take();
  test::writeFile("bad.json", "{");
  loadConfig("./bad.json", console_);
  const auto warnings = console_.take();
  fs::current_path(before);

  // The working directory as the kernel reports it: the temporary directory may sit behind a link.
  const auto cwd = fs::canonical(dir_);
  EXPECT_EQ(loaded, defaultConfig());
  EXPECT_EQ(test::readFile(dir_ / "roles.json"), encodeConfig(defaultConfig()));
  EXPECT_EQ(lines, std::vector<std::string>{notice(cwd / "roles.json")});
  ASSERT_EQ(warnings.size(), 1U);
  EXPECT_EQ(warnings[0], warning(cwd / "./bad.json", decodeConfig("{").error));
}

}  // namespace
}  // namespace parlavox
