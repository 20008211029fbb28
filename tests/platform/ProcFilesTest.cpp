#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <ostream>
#include <string>

#include "platform/ProcFiles.h"

namespace parlavox::platform {

// For GoogleTest's messages.
std::ostream& operator<<(std::ostream& out, const ProcStat& s) {
  return out << s.state << " utime " << s.userTicks << " stime " << s.systemTicks << " start "
             << s.startTicks << " vsize " << s.virtualBytes << " rss " << s.residentPages;
}
std::ostream& operator<<(std::ostream& out, const ProcStatus& s) {
  return out << "VmRSS " << s.residentBytes << " VmHWM " << s.peakResidentBytes << " RssAnon "
             << s.anonymousBytes;
}

namespace {

// Fields 3 to 24 of a stat line: state Z, utime 7, stime 3, starttime 141831, vsize 3133440,
// rss 374.
constexpr std::uint64_t kKiB = 1024;

constexpr const char* kStatFields =
    "Z 1 1 1 0 -1 4194304 103 0 0 0 7 3 0 0 20 0 1 0 141831 3133440 374 18446744073709551615 0\n";

// The command name is whatever the process chose, parentheses and spaces included; a line cut
// short or a field that is not a number reads as nothing, never as zeros.
TEST(ProcFiles, ParsesStatAfterTheLastParenthesis) {
  const ProcStat expected{'Z', 7, 3, 141831, 3133440, 374};
  const std::string fields = kStatFields;
  std::string notNumber = fields;
  notNumber.replace(notNumber.find(" 7 "), 3, " 7x ");
  const std::pair<std::string, std::optional<ProcStat>> cases[] = {
      {"4242 (parlavox) " + fields, expected},
      {"4242 (a) R 1 (b c) " + fields, expected},
      {"4242 (parlavox) " + fields.substr(0, fields.find(" 374")), std::nullopt},
      {"4242 (parlavox) " + notNumber, std::nullopt},
      {"", std::nullopt},
  };
  for (const auto& [text, stat] : cases) {
    EXPECT_EQ(parseProcStat(text), stat) << text;
  }
}

// Fields count only at the start of a line: the name, on the first, may look like one.
TEST(ProcFiles, ParsesStatusMemoryInBytes) {
  const std::pair<std::string, std::optional<ProcStatus>> cases[] = {
      {"Name:\tVmRSS: 1 kB\nState:\tS (sleeping)\nVmPeak:\t    9000 kB\nVmHWM:\t    2000 kB\n"
       "VmRSS:\t    1900 kB\nRssAnon:\t     156 kB\nRssFile:\t    1744 kB\n",
       ProcStatus{1900 * kKiB, 2000 * kKiB, 156 * kKiB}},
      {"Name:\tsay\nState:\tZ (zombie)\nThreads:\t1\n", std::nullopt},
      {"VmHWM:\t2000 kB\nVmRSS:\t1900 kB\nRssAnon:\t kB\n", std::nullopt},
  };
  for (const auto& [text, status] : cases) {
    EXPECT_EQ(parseProcStatus(text), status) << text;
  }
}

TEST(ProcFiles, ReadsAnyProcessWhileItExists) {
  const auto stat = readProcStat(::getpid());
  ASSERT_TRUE(stat);
  EXPECT_EQ(stat->state, 'R');
  const auto status = readProcStatus(::getpid());
  ASSERT_TRUE(status);
  EXPECT_GT(status->residentBytes, 0U);
  EXPECT_GE(openFileCount(::getpid()).value_or(0), 3U);
  EXPECT_FALSE(readProcStat(INT_MAX));  // above any pid_max
  EXPECT_FALSE(readProcStatus(INT_MAX));
}

}  // namespace
}  // namespace parlavox::platform
