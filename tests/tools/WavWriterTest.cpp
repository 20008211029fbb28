#include <gtest/gtest.h>

#include "platform/AudioFile.h"
#include "platform/WavWriter.h"
#include "support/Samples.h"
#include "support/TempDir.h"

namespace parlavox::platform {
namespace {

class WavWriterTest : public testing::Test {
 protected:
  test::TempDir dir_;
};

TEST_F(WavWriterTest, WritesMono16BitAtTheRateAskedAndIsCompleteBeforeClose) {
  WavWriter wav;
  ASSERT_TRUE(wav.open(dir_ / "a.wav", 16000)) << wav.error();
  const std::vector<std::int16_t> first{0, 1, -1, 32767, -32768};
  const std::vector<std::int16_t> second{1234, -4321};
  ASSERT_TRUE(wav.append(first));
  ASSERT_TRUE(wav.append({}));
  ASSERT_TRUE(wav.append(second));
  EXPECT_EQ(wav.samplesWritten(), 7U);

  // Readable as it stands: a listener killed now still leaves a playable file.
  const auto early = readAudioFile(dir_ / "a.wav");
  ASSERT_EQ(early.status, AudioReadResult::Status::ok) << early.error;
  EXPECT_EQ(early.frames, 7U);

  ASSERT_TRUE(wav.close());
  EXPECT_FALSE(wav.isOpen());
  const auto read = readAudioFile(dir_ / "a.wav");
  ASSERT_EQ(read.status, AudioReadResult::Status::ok) << read.error;
  EXPECT_EQ(read.sampleRate, 16000);
  EXPECT_EQ(read.channels, 1);
  EXPECT_EQ(test::toInt16(read.samples),
            (std::vector<std::int16_t>{0, 1, -1, 32767, -32768, 1234, -4321}));
}

TEST_F(WavWriterTest, SaysWhyWhenItCannotWrite) {
  WavWriter wav;
  EXPECT_FALSE(wav.open(dir_ / "no/such/dir/a.wav", 16000));
  EXPECT_FALSE(wav.error().empty());
  EXPECT_FALSE(wav.isOpen());
  const std::vector<std::int16_t> some{1, 2};
  EXPECT_FALSE(wav.append(some));
  EXPECT_EQ(wav.error(), "the file is not open");
  EXPECT_TRUE(wav.close()) << "closing what is not open is no failure";
}

TEST_F(WavWriterTest, ReopeningStartsANewFile) {
  WavWriter wav;
  const std::vector<std::int16_t> some{5, 6, 7};
  ASSERT_TRUE(wav.open(dir_ / "a.wav", 16000));
  ASSERT_TRUE(wav.append(some));
  ASSERT_TRUE(wav.open(dir_ / "b.wav", 8000));
  EXPECT_EQ(wav.samplesWritten(), 0U);
  ASSERT_TRUE(wav.append(std::span(some).first(1)));
  ASSERT_TRUE(wav.close());
  EXPECT_EQ(readAudioFile(dir_ / "a.wav").frames, 3U) << "the first file was finished";
  const auto b = readAudioFile(dir_ / "b.wav");
  EXPECT_EQ(b.frames, 1U);
  EXPECT_EQ(b.sampleRate, 8000);
}

}  // namespace
}  // namespace parlavox::platform
