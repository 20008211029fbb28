// The /proc parsers behind the memory and CPU columns: a misread field gives a plausible wrong
// number, never a failed run.
#include <gtest/gtest.h>

#include "ProcessUsage.h"

namespace parlavox::bench {
namespace {

TEST(ProcessUsage, StatusFieldsInBytes) {
  const std::string status =
      "Name:\tparlavox\nVmHWM:\t   10240 kB\nVmRSS:\t    9600 kB\nRssAnon:\t    3500 kB\n";
  EXPECT_EQ(statusBytes(status, "VmRSS"), 9600U * 1024);
  EXPECT_EQ(statusBytes(status, "VmHWM"), 10240U * 1024);
  EXPECT_EQ(statusBytes(status, "RssAnon"), 3500U * 1024);
  EXPECT_EQ(statusBytes(status, "Rss"), 0U) << "a prefix of another field's name";
}

TEST(ProcessUsage, CpuTicksAfterACommandNameWithSpacesAndParentheses) {
  struct Case {
    const char* stat;
    std::uint64_t ticks;
  };
  for (const Case& c : {
           Case{"4242 (parlavox) S 1 4242 4242 0 -1 4194560 900 0 0 0 125 37 0 0 20 0 5 0", 162},
           Case{"77 (a b) (c)) R 1 77 77 0 -1 0 0 0 0 0 3 4 0 0 20 0 1 0", 7},
           Case{"77 (parlavox) S 1 2", 0},  // cut short
           Case{"garbage", 0},
       }) {
    EXPECT_EQ(cpuTicks(c.stat), c.ticks) << c.stat;
  }
}

}  // namespace
}  // namespace parlavox::bench
