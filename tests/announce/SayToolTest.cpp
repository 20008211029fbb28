// parlavox-say, the speech command this project ships for hosts without /usr/bin/say.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "platform/AudioFile.h"
#include "support/ChildProcess.h"
#include "support/TempDir.h"

namespace parlavox {
namespace {

class ParlavoxSay : public testing::Test {
 protected:
  test::ChildRun say(const std::vector<std::string>& args) {
    return test::runToEnd(test::parlavoxSayBinary(), args, dir_.path());
  }

  test::TempDir dir_;
};

// Text that looks like an option is spoken as words, and nothing named in it is touched.
TEST_F(ParlavoxSay, SpeaksAnyTextIntoAMonoAiffFile) {
  struct Case {
    std::string text;
    double minSeconds;
    double maxSeconds;
  };
  for (const auto& [text, minSeconds, maxSeconds] :
       {Case{"Places please", 0.5, 3.0}, Case{"--version", 0.2, 3.0},
        Case{"-f /etc/passwd", 0.2, 5.0}, Case{"", 0.0, 0.5}}) {
    const auto run = say({"-o", "speech.aiff", text});
    ASSERT_EQ(run.status, 0) << text;
    EXPECT_EQ(run.standardError, "");
    EXPECT_EQ(dir_.entries(), std::vector<std::string>{"speech.aiff"});
    const std::string header = test::readFile(dir_ / "speech.aiff").substr(0, 12);
    EXPECT_TRUE(header.starts_with("FORM") && header.ends_with("AIFF")) << text;
    const auto audio = platform::readAudioFile(dir_ / "speech.aiff");
    ASSERT_TRUE(audio) << audio.error();
    EXPECT_EQ(audio->channels, 1);
    const double seconds = audio->frames / audio->sampleRate;
    EXPECT_GE(seconds, minSeconds) << text;
    EXPECT_LT(seconds, maxSeconds) << text;
    if (minSeconds > 0) {
      double sum = 0;
      for (const float v : audio->samples) {
        sum += static_cast<double>(v) * v;
      }
      EXPECT_GT(std::sqrt(sum / static_cast<double>(audio->samples.size())), 0.01) << "silent";
    }
  }
}

TEST_F(ParlavoxSay, RefusesAnyOtherCommandLineWithOneLineOfUsage) {
  for (const auto& args : std::vector<std::vector<std::string>>{{},
                                                                {"--version"},
                                                                {"-o", "x.aiff"},
                                                                {"-o", "x.aiff", "one", "two"},
                                                                {"-w", "x.aiff", "text"}}) {
    const auto run = say(args);
    EXPECT_EQ(run.status, 2) << args.size() << " arguments";
    EXPECT_EQ(run.standardError, "usage: parlavox-say -o FILE.aiff TEXT\n");
  }
  EXPECT_TRUE(dir_.entries().empty());
}

TEST_F(ParlavoxSay, FailsWithOneLineWhenTheFileCannotBeWritten) {
  const auto run = say({"-o", "missing/dir/x.aiff", "Hello"});
  EXPECT_NE(run.status, 0);
  EXPECT_TRUE(run.standardError.starts_with("parlavox-say: ")) << run.standardError;
  EXPECT_EQ(run.standardError.find('\n'), run.standardError.size() - 1) << run.standardError;
}

}  // namespace
}  // namespace parlavox
