// parlavox-say, the speech command this project ships for hosts without /usr/bin/say.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "AnnounceTestSupport.h"
#include "platform/AudioFile.h"
#include "platform/Process.h"
#include "support/ChildProcess.h"

namespace parlavox {
namespace {

using test::TempDir;

const std::string kSay = test::parlavoxSayBinary();

double rms(const platform::AudioReadResult& audio) {
  double sum = 0;
  for (const float v : audio.samples) {
    sum += static_cast<double>(v) * v;
  }
  return audio.samples.empty() ? 0.0 : std::sqrt(sum / static_cast<double>(audio.samples.size()));
}

TEST(ParlavoxSay, SpeaksTextIntoAnAiffFile) {
  TempDir dir;
  const std::string out = dir / "places.aiff";
  const auto run = platform::runProcess({kSay, "-o", out, "Places please"});
  ASSERT_TRUE(run.launched) << run.error;
  ASSERT_EQ(run.status, 0);
  const auto audio = platform::readAudioFile(out);
  ASSERT_EQ(audio.status, platform::AudioReadResult::Status::ok) << audio.error;
  EXPECT_EQ(audio.channels, 1);
  const double seconds = audio.frames / audio.sampleRate;
  EXPECT_GT(seconds, 0.5);
  EXPECT_LT(seconds, 3.0);
  EXPECT_GT(rms(audio), 0.01);
  const std::string header = test::readFile(out).substr(0, 12);
  EXPECT_EQ(header.substr(0, 4), "FORM");
  EXPECT_EQ(header.substr(8, 4), "AIFF");
}

TEST(ParlavoxSay, SpeaksOptionLookingTextAsWords) {
  TempDir dir;
  for (const std::string text : {"--version", "-f /etc/passwd", "-o"}) {
    const std::string out = dir / "option.aiff";
    const auto run = platform::runProcess({kSay, "-o", out, text});
    ASSERT_EQ(run.status, 0) << text;
    const auto audio = platform::readAudioFile(out);
    ASSERT_EQ(audio.status, platform::AudioReadResult::Status::ok) << text << ": " << audio.error;
    // Even the shortest of these is a few syllables long.
    EXPECT_GT(audio.frames / audio.sampleRate, 0.2) << text;
    EXPECT_GT(rms(audio), 0.01) << text;
  }
  // Nothing was read from or written to the paths named in the text.
  EXPECT_EQ(dir.entries(), std::vector<std::string>{"option.aiff"});
}

TEST(ParlavoxSay, EmptyTextGivesAValidFile) {
  TempDir dir;
  const std::string out = dir / "empty.aiff";
  ASSERT_EQ(platform::runProcess({kSay, "-o", out, ""}).status, 0);
  const auto audio = platform::readAudioFile(out);
  ASSERT_EQ(audio.status, platform::AudioReadResult::Status::ok) << audio.error;
  EXPECT_LT(audio.frames / audio.sampleRate, 0.5);
}

TEST(ParlavoxSay, RefusesAnyOtherCommandLineWithOneLineOfUsage) {
  TempDir dir;
  const std::string out = dir / "x.aiff";
  const std::string err = dir / "err";
  const std::vector<std::vector<std::string>> commandLines = {{},
                                                              {"--version"},
                                                              {"-o", out},
                                                              {"-o", out, "one", "two"},
                                                              {"-w", out, "text"},
                                                              {out, "-o", "text"}};
  for (const auto& args : commandLines) {
    // sh keeps the tool's standard error apart from its output, to look at it.
    std::vector<std::string> argv = {"/bin/sh", "-c", "exec \"$0\" \"$@\" 2>'" + err + "'", kSay};
    argv.insert(argv.end(), args.begin(), args.end());
    EXPECT_EQ(platform::runProcess(argv).status, 2) << args.size() << " arguments";
    EXPECT_EQ(test::readFile(err), "usage: parlavox-say -o FILE.aiff TEXT\n");
  }
  EXPECT_EQ(dir.entries(), std::vector<std::string>{"err"});
}

TEST(ParlavoxSay, FailsWithOneLineWhenTheFileCannotBeWritten) {
  TempDir dir;
  const std::string err = dir / "err";
  const std::vector<std::string> argv = {"/bin/sh", "-c", "exec \"$0\" \"$@\" 2>'" + err + "'",
                                         kSay,      "-o", dir / "missing/dir/x.aiff",
                                         "Hello"};
  const auto run = platform::runProcess(argv);
  EXPECT_NE(run.status, 0);
  const std::string message = test::readFile(err);
  EXPECT_EQ(message.rfind("parlavox-say: ", 0), 0U) << message;
  ASSERT_FALSE(message.empty());
  EXPECT_EQ(message.find('\n'), message.size() - 1) << message;
}

}  // namespace
}  // namespace parlavox
