#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/Process.h"
#include "support/TempDir.h"

namespace parlavox::platform {
namespace {

TEST(RunProcess, GivesTheExitStatusOrWhyTheProgramCouldNotStart) {
  for (const auto& [script, status] : {std::pair{"exit 255", 255}, {"kill -KILL $$", 128 + 9}}) {
    const auto result = runProcess({"/bin/sh", "-c", script});
    ASSERT_TRUE(result) << script << ": " << result.error();
    EXPECT_EQ(*result, status) << script;
  }
  const auto missing = runProcess({"sh", "-c", "exit 0"});  // no PATH search
  EXPECT_EQ(missing.error(), std::strerror(ENOENT));
}

// This process keeps standard error silent, so whatever a child says there goes to standard output.
TEST(RunProcess, SendsTheChildsErrorOutputToOurStandardOutput) {
  test::TempDir dir;
  std::fflush(stdout);
  const int saved = ::dup(STDOUT_FILENO);
  const int file = ::open((dir / "out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  ::dup2(file, STDOUT_FILENO);
  ::close(file);
  const auto result = runProcess({"/bin/sh", "-c", "echo to-out; echo to-err >&2"});
  ::dup2(saved, STDOUT_FILENO);
  ::close(saved);
  EXPECT_TRUE(result);
  EXPECT_EQ(test::readFile(dir / "out"), "to-out\nto-err\n");
}

}  // namespace
}  // namespace parlavox::platform
