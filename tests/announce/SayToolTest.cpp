// parlavox-say, the speech command this project ships for hosts without /usr/bin/say.
#include <gtest/gtest.h>

#include "platform/AudioFile.h"
#include "support/ChildProcess.h"
#include "support/TempDir.h"

namespace parlavox {
namespace {

// Text that looks like an option is spoken as words; a wrong command line gets one line of usage
// and status 2; a failure, one line and status 1.
TEST(ParlavoxSay, SpeaksAnyTextAndSaysWhatItCannotDoInOneLine) {
  test::TempDir dir;
  const auto say = [&](const std::vector<std::string>& args) {
    return test::runToEnd(test::parlavoxSayBinary(), args, dir.path());
  };
  for (const std::string text : {"Places please", "-f /etc/passwd", ""}) {
    const auto run = say({"-o", "speech.aiff", text});
    ASSERT_EQ(run.status, 0) << text << run.standardError;
    const auto audio = platform::readAudioFile(dir / "speech.aiff");
    ASSERT_TRUE(audio) << audio.error();
    EXPECT_EQ(audio->channels, 1);
    EXPECT_EQ(audio->frames > audio->sampleRate / 10, !text.empty()) << text;
  }
  EXPECT_EQ(dir.entries(), std::vector<std::string>{"speech.aiff"});
  for (const auto& args : std::vector<std::vector<std::string>>{
           {}, {"--version"}, {"-o", "x.aiff", "one", "two"}, {"-w", "x.aiff", "text"}}) {
    const auto run = say(args);
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.standardError, "usage: parlavox-say -o FILE.aiff TEXT\n");
  }
  const auto run = say({"-o", "missing/dir/x.aiff", "Hello"});
  EXPECT_EQ(run.status, 1);
  EXPECT_TRUE(run.standardError.starts_with("parlavox-say: ")) << run.standardError;
  EXPECT_EQ(run.standardError.find('\n'), run.standardError.size() - 1) << run.standardError;
}

}  // namespace
}  // namespace parlavox
