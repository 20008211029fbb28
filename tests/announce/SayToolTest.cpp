// parlavox-say, the speech command this project ships for hosts without /usr/bin/say.
#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <set>

#include "devkit/ChildProcess.h"
#include "devkit/TempDir.h"
#include "platform/AudioFile.h"
#include "support/Programs.h"

namespace parlavox {
namespace {

// Text that looks like an option is spoken as words; a wrong command line gets one line of usage
// and status 2; a failure, one line and status 1.
TEST(ParlavoxSay, SpeaksAnyTextAndSaysWhatItCannotDoInOneLine) {
  devkit::TempDir dir;
  const auto say = [&](const std::vector<std::string>& args) {
    return devkit::runToEnd(test::parlavoxSayBinary(), args, dir.path());
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

// The voice comes from the environment the server passes on, never from the command line.
TEST(ParlavoxSay, SpeaksInTheVoiceItsEnvironmentAsksForAndInEnglishWithoutOne) {
  for (const char* variable : {"PARLAVOX_VOICE", "LC_ALL", "LC_MESSAGES", "LANG"}) {
    ::unsetenv(variable);  // this test's process only: each test runs in a process of its own
  }
  devkit::TempDir dir;
  // What the speech file holds, and what was said on standard error.
  const auto speak = [&dir](const std::vector<std::string>& env) {
    const devkit::ChildRun run = devkit::runToEnd(
        test::parlavoxSayBinary(), {"-o", "out.aiff", "eins zwei drei"}, dir.path(), env);
    EXPECT_EQ(run.status, 0);
    return std::pair{devkit::readFile(dir / "out.aiff"), run.standardError};
  };
  const std::map<std::string, std::string> voices{
      {"English", speak({}).first},
      {"German", speak({"PARLAVOX_VOICE=de"}).first},
      {"French", speak({"PARLAVOX_VOICE=fr"}).first},
  };
  EXPECT_EQ(std::set<std::string>({voices.at("English"), voices.at("German"), voices.at("French")})
                .size(),
            3U);

  struct Case {
    std::vector<std::string> env;
    std::string voice;
    std::string error;
  };
  const Case cases[] = {
      {{"LANG=de_DE.UTF-8"}, "German", ""},
      {{"LANG=de_AT.UTF-8@euro"}, "German", ""},
      {{"LC_ALL=fr_FR.UTF-8", "LC_MESSAGES=de_DE.UTF-8", "LANG=de_DE.UTF-8"}, "French", ""},
      {{"LC_MESSAGES=fr_CA.UTF-8", "LANG=de_DE.UTF-8"}, "French", ""},
      {{"LC_ALL=C.UTF-8", "LANG=de_DE.UTF-8"}, "English", ""},
      {{"PARLAVOX_VOICE=xx", "LANG=de_DE.UTF-8"},
       "English",
       "parlavox-say: espeak-ng has no voice \"xx\"; speaking English\n"},
      {{"LANG=zz_ZZ.UTF-8"},
       "English",
       "parlavox-say: espeak-ng has no voice \"zz-zz\"; speaking English\n"},
  };
  for (const Case& c : cases) {
    const auto [audio, error] = speak(c.env);
    EXPECT_EQ(audio, voices.at(c.voice)) << c.env.front();
    EXPECT_EQ(error, c.error) << c.env.front();
  }
}

}  // namespace
}  // namespace parlavox
