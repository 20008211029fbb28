// parlavox-say speaks in the crew's language: the voice comes from the environment the server
// passes on, never from its command line.
#include <gtest/gtest.h>

#include <cstdlib>
#include <map>

#include "support/ChildProcess.h"
#include "support/TempDir.h"

namespace parlavox::test {
namespace {

TEST(Say, SpeaksInTheVoiceItsEnvironmentAsksForAndInEnglishWithoutOne) {
  for (const char* variable : {"PARLAVOX_VOICE", "LC_ALL", "LC_MESSAGES", "LANG"}) {
    ::unsetenv(variable);  // this test's process only: each test runs in a process of its own
  }
  TempDir dir;
  // What the speech file holds, and what was said on standard error.
  const auto speak = [&dir](const std::vector<std::string>& env) {
    const ChildRun run =
        runToEnd(parlavoxSayBinary(), {"-o", "out.aiff", "eins zwei drei"}, dir.path(), env);
    EXPECT_EQ(run.status, 0);
    return std::pair{readFile(dir / "out.aiff"), run.standardError};
  };
  const std::map<std::string, std::string> voices{
      {"English", speak({}).first},
      {"German", speak({"PARLAVOX_VOICE=de"}).first},
      {"French", speak({"PARLAVOX_VOICE=fr"}).first},
  };
  EXPECT_NE(voices.at("German"), voices.at("English"));
  EXPECT_NE(voices.at("French"), voices.at("English"));
  EXPECT_NE(voices.at("French"), voices.at("German"));

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
      {{"PARLAVOX_VOICE=de", "LC_ALL=fr_FR.UTF-8"}, "German", ""},
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
}  // namespace parlavox::test
