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
#include <set>
#include <thread>

#include "AnnounceTestSupport.h"
#include "platform/Process.h"
#include "platform/Resampler.h"
#include "platform/SerialQueue.h"
#include "platform/TempFile.h"

namespace parlavox::platform {
namespace {

using test::TempDir;

TEST(RunProcess, ReportsExitStatusOrSignal) {
  struct Case {
    std::string script;
    int status;
  };
  const Case cases[] = {
      {"exit 0", 0},
      {"exit 255", 255},
      {"kill -KILL $$", 128 + 9},
  };
  for (const auto& c : cases) {
    const auto result = runProcess({"/bin/sh", "-c", c.script});
    EXPECT_TRUE(result.launched) << c.script;
    EXPECT_EQ(result.status, c.status) << c.script;
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
      {dir.path(), EACCES},  // a directory
      {"relative-name-on-no-path", ENOENT},
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

TEST(RunProcess, PassesArgumentsVerbatimWithoutAShell) {
  TempDir dir;
  const std::string record = dir / "args";
  const std::string script =
      test::writeScript(dir / "record", "printf '%s\\0' \"$@\" > '" + record + "'");
  const std::vector<std::string> args = {"-o", "a b.aiff",
                                         "$(touch '" + (dir / "pwned") + "') ; * \"'", ""};
  std::vector<std::string> argv = {script};
  argv.insert(argv.end(), args.begin(), args.end());
  ASSERT_EQ(runProcess(argv).status, 0);
  EXPECT_EQ(test::splitNul(test::readFile(record)), args);
  EXPECT_NE(::access((dir / "pwned").c_str(), F_OK), 0);
}

TEST(TempFile, NamesAFileInTheDirectoryAndRemovesItOnEveryExit) {
  TempDir dir;
  std::string path;
  {
    const TempFile file(dir.path(), "speech.aiff");
    path = file.path();
    EXPECT_EQ(path, dir.path() + "/speech.aiff");
    test::writeFile(path, "data");
  }
  EXPECT_NE(::access(path.c_str(), F_OK), 0);
  {
    const TempFile trailing(dir.path() + "/", "never-created.aiff");
    EXPECT_EQ(trailing.path(), dir.path() + "/never-created.aiff");
  }  // nothing to remove: no complaint, no crash
  EXPECT_TRUE(dir.entries().empty());
}

TEST(TempFile, TemporaryDirectoryComesFromTmpdirWhenSet) {
  const char* before = std::getenv("TMPDIR");
  const std::string saved = before != nullptr ? before : "";
  struct Case {
    const char* value;  // nullptr: unset
    std::string expected;
  };
  const Case cases[] = {{"/var/tmp/crew", "/var/tmp/crew"}, {"", "/tmp"}, {nullptr, "/tmp"}};
  for (const auto& c : cases) {
    if (c.value != nullptr) {
      ::setenv("TMPDIR", c.value, 1);
    } else {
      ::unsetenv("TMPDIR");
    }
    EXPECT_EQ(TempFile::temporaryDirectory(), c.expected);
    const TempFile file("", "x.aiff");
    EXPECT_EQ(file.path(), c.expected + "/x.aiff");
  }
  if (before != nullptr) {
    ::setenv("TMPDIR", saved.c_str(), 1);
  } else {
    ::unsetenv("TMPDIR");
  }
}

TEST(TempFile, UuidsAreVersion4UpperCaseAndDistinct) {
  std::set<std::string> seen;
  for (int i = 0; i < 1000; ++i) {
    const std::string uuid = TempFile::randomUuid();
    ASSERT_TRUE(test::matchesHexPattern(uuid, test::kUuidPattern)) << uuid;
    EXPECT_EQ(uuid[14], '4') << uuid;                                                    // version
    EXPECT_NE(std::string_view("89AB").find(uuid[19]), std::string_view::npos) << uuid;  // variant
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
  out.reserve(values.size());
  for (const int v : values) {
    out.push_back(static_cast<float>(v) / 32768.0F);
  }
  return out;
}

TEST(Resampler, SixteenBitMonoAtNetworkRatePassesThroughUnchanged) {
  std::vector<int> values;
  values.reserve(4007);
  for (int i = 0; i < 4000; ++i) {
    values.push_back(static_cast<int>(std::lround(20000.0 * std::sin(i * 0.07))) + (i % 3) - 1);
  }
  values.insert(values.end(), {-32768, 32767, 1, -1, 0, 0, 0});
  const auto input = fromInt16(values);
  const auto result = resampleToMono16(input, 1, input.size(), 16000.0, 16000.0, input.size() + 32);
  ASSERT_TRUE(result.ok) << result.error;
  ASSERT_EQ(result.samples.size(), values.size());
  for (std::size_t i = 0; i < values.size(); ++i) {
    ASSERT_EQ(result.samples[i], values[i]) << "sample " << i;
  }
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
  struct Case {
    double rate;
    std::size_t frames;
  };
  for (const auto& c :
       {Case{22050.0, 22050}, Case{44100.0, 30000}, Case{8000.0, 4000}, Case{48000.0, 9600}}) {
    std::vector<float> input(c.frames);
    for (std::size_t i = 0; i < c.frames; ++i) {
      input[i] =
          0.5F * static_cast<float>(std::sin(2.0 * M_PI * 440.0 * static_cast<double>(i) / c.rate));
    }
    const double exact = 16000.0 / c.rate * static_cast<double>(c.frames);
    const auto result =
        resampleToMono16(input, 1, c.frames, c.rate, 16000.0, static_cast<std::size_t>(exact) + 32);
    ASSERT_TRUE(result.ok) << result.error;
    EXPECT_NEAR(static_cast<double>(result.samples.size()), exact, 2.0) << c.rate;
    // Level in the middle, away from the filter's edges.
    double sum = 0;
    const std::size_t from = result.samples.size() / 4;
    const std::size_t to = 3 * result.samples.size() / 4;
    for (std::size_t i = from; i < to; ++i) {
      sum += static_cast<double>(result.samples[i]) * result.samples[i];
    }
    EXPECT_NEAR(std::sqrt(sum / static_cast<double>(to - from)), 0.5 * 32768.0 / std::sqrt(2.0),
                150.0)
        << c.rate;
  }
}

TEST(Resampler, NeverWritesMoreThanTheCapacity) {
  const std::vector<float> input(1000, 0.25F);
  const auto result = resampleToMono16(input, 1, input.size(), 16000.0, 16000.0, 300);
  ASSERT_TRUE(result.ok) << result.error;
  EXPECT_EQ(result.samples.size(), 300U);
}

TEST(Resampler, EmptyInputGivesEmptyOutput) {
  const auto result = resampleToMono16({}, 1, 0, 22050.0, 16000.0, 32);
  ASSERT_TRUE(result.ok) << result.error;
  EXPECT_TRUE(result.samples.empty());
}

TEST(Resampler, ReportsTheLibrarysErrorForAnImpossibleRate) {
  const std::vector<float> input(100, 0.1F);
  const auto result = resampleToMono16(input, 1, input.size(), -22050.0, 16000.0, 64);
  EXPECT_FALSE(result.ok);
  EXPECT_EQ(result.error, "I/O ratio out-of-range");
  EXPECT_TRUE(result.samples.empty());
}

TEST(Resampler, RejectsInputShorterThanItsFrameCount) {
  const std::vector<float> input(10, 0.0F);
  const auto result = resampleToMono16(input, 2, 6, 16000.0, 16000.0, 64);
  EXPECT_FALSE(result.ok);
  EXPECT_FALSE(result.error.empty());
}

}  // namespace
}  // namespace parlavox::platform
