#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <string>

#include "platform/Process.h"

namespace parlavox::platform {
namespace {

using namespace std::chrono_literals;

// Its output comes back, never shown, cut to the last 64 bytes; its input is empty, and it has no
// other descriptor of ours.
TEST(RunProcess, GivesTheExitStatusAndTheEndOfTheOutputOrWhyItCouldNotStart) {
  const int ours = ::dup(STDOUT_FILENO);  // not closed on exec
  const std::tuple<std::string, int, std::string> cases[] = {
      {"ls /proc/$$/fd", 0, "0\n1\n2\n"},
      {"exit 255", 255, ""},
      {"kill -KILL $$", 128 + SIGKILL, ""},
      {"echo to-out; echo to-err >&2; read line || echo no-input", 0, "to-out\nto-err\nno-input\n"},
      {"head -c 100000 /dev/zero | tr '\\0' x; echo '<end>'", 0, std::string(58, 'x') + "<end>\n"},
  };
  for (const auto& [script, status, output] : cases) {
    const auto end = runProcess({"/bin/sh", "-c", script}, {30s, 64});
    ASSERT_TRUE(end) << script << ": " << end.error();
    EXPECT_EQ(end->kind, ProcessEnd::Kind::exited) << script;
    EXPECT_EQ(end->status, status) << script;
    EXPECT_EQ(end->output, output) << script;
  }
  ::close(ours);
  const auto missing = runProcess({"sh", "-c", "exit 0"}, {30s, 64});  // no PATH search
  EXPECT_EQ(missing.error(), std::strerror(ENOENT));
}

}  // namespace
}  // namespace parlavox::platform
