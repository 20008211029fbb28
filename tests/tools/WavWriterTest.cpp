#include <gtest/gtest.h>

#include "client/WavWriter.h"
#include "platform/AudioFile.h"
#include "support/Samples.h"
#include "support/TempDir.h"

namespace parlavox::client {
namespace {

// Readable as it stands after every append: a listener killed at any moment leaves a playable
// file. What a finished recording holds is checked end to end.
TEST(WavWriter, IsACompleteFileBeforeItIsClosed) {
  test::TempDir dir;
  WavWriter wav;
  ASSERT_TRUE(wav.open(dir / "a.wav", 16000));
  ASSERT_TRUE(wav.append(std::vector<std::int16_t>{0, 1, -1, 32767, -32768}));
  ASSERT_TRUE(wav.append(std::vector<std::int16_t>{1234, -4321}));
  const auto early = platform::readAudioFile(dir / "a.wav");
  ASSERT_TRUE(early) << early.error();
  EXPECT_EQ(early->sampleRate, 16000);
  EXPECT_EQ(test::toInt16(early->samples),
            (std::vector<std::int16_t>{0, 1, -1, 32767, -32768, 1234, -4321}));
}

}  // namespace
}  // namespace parlavox::client
