#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <random>

#include "platform/AudioFile.h"
#include "platform/WavWriter.h"

namespace parlavox::platform {
namespace {

class WavWriterTest : public testing::Test {
 public:
  WavWriterTest() {
    std::random_device random;
    dir_ = std::filesystem::temp_directory_path() / ("parlavox-wav-" + std::to_string(random()));
    std::filesystem::create_directories(dir_);
  }
  ~WavWriterTest() override {
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
  }
  WavWriterTest(const WavWriterTest&) = delete;
  WavWriterTest& operator=(const WavWriterTest&) = delete;

 protected:
  std::string path(const std::string& name) const { return (dir_ / name).string(); }

  // The file as 16-bit values (libsndfile reads 16-bit PCM back as exact multiples of 1/32768).
  static std::vector<std::int16_t> samplesOf(const AudioReadResult& read) {
    std::vector<std::int16_t> out;
    for (const float value : read.samples) {
      out.push_back(static_cast<std::int16_t>(std::lround(value * 32768.0F)));
    }
    return out;
  }

 private:
  std::filesystem::path dir_;
};

TEST_F(WavWriterTest, WritesMono16BitAtTheRateAskedAndIsCompleteBeforeClose) {
  WavWriter wav;
  ASSERT_TRUE(wav.open(path("a.wav"), 16000)) << wav.error();
  const std::vector<std::int16_t> first{0, 1, -1, 32767, -32768};
  const std::vector<std::int16_t> second{1234, -4321};
  ASSERT_TRUE(wav.append(first));
  ASSERT_TRUE(wav.append({}));
  ASSERT_TRUE(wav.append(second));
  EXPECT_EQ(wav.samplesWritten(), 7U);

  // Readable as it stands: a listener killed now still leaves a playable file.
  const auto early = readAudioFile(path("a.wav"));
  ASSERT_EQ(early.status, AudioReadResult::Status::ok) << early.error;
  EXPECT_EQ(early.frames, 7U);

  ASSERT_TRUE(wav.close());
  EXPECT_FALSE(wav.isOpen());
  const auto read = readAudioFile(path("a.wav"));
  ASSERT_EQ(read.status, AudioReadResult::Status::ok) << read.error;
  EXPECT_EQ(read.sampleRate, 16000);
  EXPECT_EQ(read.channels, 1);
  EXPECT_EQ(samplesOf(read), (std::vector<std::int16_t>{0, 1, -1, 32767, -32768, 1234, -4321}));
}

TEST_F(WavWriterTest, SaysWhyWhenItCannotWrite) {
  WavWriter wav;
  EXPECT_FALSE(wav.open(path("no/such/dir/a.wav"), 16000));
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
  ASSERT_TRUE(wav.open(path("a.wav"), 16000));
  ASSERT_TRUE(wav.append(some));
  ASSERT_TRUE(wav.open(path("b.wav"), 8000));
  EXPECT_EQ(wav.samplesWritten(), 0U);
  ASSERT_TRUE(wav.append(std::span(some).first(1)));
  ASSERT_TRUE(wav.close());
  EXPECT_EQ(readAudioFile(path("a.wav")).frames, 3U) << "the first file was finished";
  const auto b = readAudioFile(path("b.wav"));
  EXPECT_EQ(b.frames, 1U);
  EXPECT_EQ(b.sampleRate, 8000);
}

}  // namespace
}  // namespace parlavox::platform
