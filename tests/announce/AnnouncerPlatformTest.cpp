// The platform pieces the announcer stands on: child processes, temporary files, the serial
// queue and the converter.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <set>
#include <thread>

#include "Uuid.h"
#include "platform/Process.h"
#include "platform/Resampler.h"
#include "platform/SerialQueue.h"
#include "platform/TempFile.h"
#include "support/TempDir.h"

namespace parlavox::platform {
namespace {

using test::TempDir;

TEST(RunProcess, ReportsExitStatusOrSignal) {
  for (const auto& [script, status] :
       {std::pair{"exit 0", 0}, {"exit 255", 255}, {"kill -KILL $$", 128 + 9}}) {
    const auto result = runProcess({"/bin/sh", "-c", script});
    EXPECT_TRUE(result.launched) << script;
    EXPECT_EQ(result.status, status) << script;
  }
}

TEST(RunProcess, ReportsWhyAProgramCouldNotStart) {
  TempDir dir;
  test::writeFile(dir / "plain", "#!/bin/sh\n");
  test::writeFile(dir / "junk", "definitely not a program");
  ::chmod((dir / "junk").c_str(), 0755);
  struct Case {
    std::string path;
    int error;
  };
  const Case cases[] = {
      {dir / "missing", ENOENT},
      {dir / "plain", EACCES},
      {dir / "junk", ENOEXEC},
      {"sh", ENOENT},  // no PATH search
  };
  for (const auto& c : cases) {
    const auto result = runProcess({c.path, "-o", "x"});
    EXPECT_FALSE(result.launched) << c.path;
    EXPECT_EQ(result.error, std::strerror(c.error)) << c.path;
  }
  EXPECT_FALSE(runProcess({}).launched);
}

TEST(RunProcess, SendsTheChildsErrorOutputToOurStandardOutput) {
  TempDir dir;
  const std::string captured = dir / "out";
  std::fflush(stdout);
  const int saved = ::dup(STDOUT_FILENO);
  const int file = ::open(captured.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  ASSERT_GE(file, 0);
  ::dup2(file, STDOUT_FILENO);
  ::close(file);
  const auto result = runProcess({"/bin/sh", "-c", "echo to-out; echo to-err >&2"});
  ::dup2(saved, STDOUT_FILENO);
  ::close(saved);
  EXPECT_TRUE(result.launched);
  EXPECT_EQ(test::readFile(captured), "to-out\nto-err\n");
}

// That the file goes on every path out of an announcement is the announcer's tests' business.
TEST(TempFile, NamesTheFileInTheDirectoryElseInTmpdirElseInTmp) {
  EXPECT_EQ(TempFile("/var/tmp/", "x.aiff").path(), "/var/tmp/x.aiff");
  const char* before = std::getenv("TMPDIR");
  const std::optional<std::string> saved =
      before != nullptr ? std::optional<std::string>(before) : std::nullopt;
  ::setenv("TMPDIR", "/var/tmp/crew", 1);
  EXPECT_EQ(TempFile("", "x.aiff").path(), "/var/tmp/crew/x.aiff");
  ::setenv("TMPDIR", "", 1);
  EXPECT_EQ(TempFile::temporaryDirectory(), "/tmp");
  ::unsetenv("TMPDIR");
  EXPECT_EQ(TempFile("", "x.aiff").path(), "/tmp/x.aiff");
  if (saved) {
    ::setenv("TMPDIR", saved->c_str(), 1);
  }
}

TEST(TempFile, UuidsAreVersion4UpperCaseAndDistinct) {
  std::set<std::string> seen;
  for (int i = 0; i < 1000; ++i) {
    const std::string uuid = TempFile::randomUuid();
    EXPECT_TRUE(test::isUuid4(uuid)) << uuid;
    seen.insert(uuid);
  }
  EXPECT_EQ(seen.size(), 1000U);
}

TEST(SerialQueue, RunsEveryTaskInOrderOnOneNamedThreadThenDrains) {
  std::vector<int> order;
  std::set<std::thread::id> threads;
  std::string name;
  unsigned long slack = 0;
  {
    SerialQueue queue("intercom.announcer", std::chrono::microseconds(50));
    queue.submit([&] {
      std::array<char, 32> buffer{};
      pthread_getname_np(pthread_self(), buffer.data(), buffer.size());
      name = buffer.data();
      slack = static_cast<unsigned long>(prctl(PR_GET_TIMERSLACK, 0, 0, 0, 0));
      // Hold the queue a moment so that the tasks below pile up behind this one.
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    });
    for (int i = 0; i < 200; ++i) {
      queue.submit([&, i] {
        order.push_back(i);
        threads.insert(std::this_thread::get_id());
      });
    }
  }  // destruction waits for all of them
  ASSERT_EQ(order.size(), 200U);
  for (int i = 0; i < 200; ++i) {
    EXPECT_EQ(order[static_cast<std::size_t>(i)], i);
  }
  EXPECT_EQ(threads.size(), 1U);
  EXPECT_EQ(threads.count(std::this_thread::get_id()), 0U);
  EXPECT_EQ(name, "intercom.announ");
  EXPECT_EQ(slack, 50000U);
}

std::vector<float> fromInt16(const std::vector<int>& values) {
  std::vector<float> out;
  for (const int v : values) {
    out.push_back(static_cast<float>(v) / 32768.0F);
  }
  return out;
}

TEST(Resampler, SixteenBitMonoAtNetworkRatePassesThroughUnchanged) {
  std::vector<int> values = {-32768, 32767, 1, -1, 0};
  for (int i = 0; i < 500; ++i) {
    values.push_back(i * 131 % 65536 - 32768);
  }
  const auto input = fromInt16(values);
  const auto result = resampleToMono16(input, 1, input.size(), 16000.0, 16000.0, input.size() + 32);
  ASSERT_TRUE(result.ok) << result.error;
  EXPECT_EQ(result.samples, std::vector<std::int16_t>(values.begin(), values.end()));
}

TEST(Resampler, AveragesChannelsIntoOne) {
  // Three channels; the mean of each frame is the value expected.
  const std::vector<float> input = {0.5F,  0.25F, 0.0F,  -0.5F, 0.5F, 0.0F,
                                    0.75F, 0.75F, 0.75F, 0.0F,  0.0F, 0.375F};
  const auto result = resampleToMono16(input, 3, 4, 16000.0, 16000.0, 36);
  ASSERT_TRUE(result.ok) << result.error;
  EXPECT_EQ(result.samples, (std::vector<std::int16_t>{8192, 0, 24576, 4096}));
}

TEST(Resampler, ChangesRateKeepingLengthAndLevel) {
  for (const double rate : {8000.0, 44100.0}) {
    const auto frames = static_cast<std::size_t>(rate / 2);
    std::vector<float> input(frames);
    for (std::size_t i = 0; i < frames; ++i) {
      input[i] =
          0.5F * static_cast<float>(std::sin(2.0 * M_PI * 440.0 * static_cast<double>(i) / rate));
    }
    const auto result = resampleToMono16(input, 1, frames, rate, 16000.0, 8032);
    ASSERT_TRUE(result.ok) << result.error;
    EXPECT_NEAR(static_cast<double>(result.samples.size()), 8000.0, 2.0) << rate;
    // Level in the middle, away from the filter's edges.
    double sum = 0;
    for (std::size_t i = 2000; i < 6000; ++i) {
      sum += static_cast<double>(result.samples[i]) * result.samples[i];
    }
    EXPECT_NEAR(std::sqrt(sum / 4000.0), 0.5 * 32768.0 / std::sqrt(2.0), 150.0) << rate;
  }
}

TEST(Resampler, KeepsToItsCapacityAndReportsWhatItCannotDo) {
  const std::vector<float> input(1000, 0.25F);
  EXPECT_EQ(resampleToMono16(input, 1, input.size(), 16000.0, 16000.0, 300).samples.size(), 300U);
  const auto empty = resampleToMono16({}, 1, 0, 22050.0, 16000.0, 32);
  EXPECT_TRUE(empty.ok && empty.samples.empty()) << empty.error;

  const auto impossible = resampleToMono16(input, 1, input.size(), -22050.0, 16000.0, 64);
  EXPECT_FALSE(impossible.ok);
  EXPECT_EQ(impossible.error, "I/O ratio out-of-range");
  EXPECT_TRUE(impossible.samples.empty());
  const auto shortInput = resampleToMono16(input, 2, 600, 16000.0, 16000.0, 64);
  EXPECT_FALSE(shortInput.ok);
  EXPECT_FALSE(shortInput.error.empty());
}

}  // namespace
}  // namespace parlavox::platform
