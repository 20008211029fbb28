// The show's log over a day's end: what it keeps, its bound, its files' rotation, and a directory
// it cannot write to.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>

#include "devkit/TempDir.h"
#include "fakes/FakeConsole.h"
#include "monitor/ShowLog.h"

namespace parlavox::test {
namespace {

using platform::EventKind;
using platform::Severity;

// 2026-11-24 23:59:58 at UTC+01:00.
constexpr std::int64_t kLastSecondsOfTheDay = 1795561198;

TEST(ShowLog, KeepsTheDayWithinItsBoundAndRotatesAtMidnight) {
  devkit::TempDir dir;
  for (const char* day : {"2026-11-01", "2026-11-10", "2026-11-11"}) {
    devkit::writeFile(dir / ShowLog::fileName(day), "time,kind,text\r\n");
  }
  devkit::writeFile(dir / "notes.csv", "");
  platform::WallTime now{kLastSecondsOfTheDay, 3600};
  FakeConsole next;
  platform::LogDirectory files(dir.path());
  ShowLog log(next, files, [&now] { return now; }, {.bytesPerDay = 400, .daysKept = 14});
  std::vector<std::string> kept = dir.entries();
  std::sort(kept.begin(), kept.end());
  EXPECT_EQ(kept, (std::vector<std::string>{"notes.csv", "parlavox-log-2026-11-11.csv",
                                            "parlavox-log-2026-11-24.csv"}));

  log.print({EventKind::report, Severity::info, "🎭 Show"});
  log.print({EventKind::service, Severity::info, "🔐 Station certificate issued"});
  log.print({EventKind::crew, Severity::info, "🎧 Ann \"Lx\", Deck joined as Lighting"});
  log.print({EventKind::service, Severity::warning, "⚠️  Port taken"});
  for (int i = 0; i < 10; ++i) {
    log.print({EventKind::operatorAction, Severity::info, "📣 Operator announced"});
  }
  EXPECT_EQ(next.lines().size(), 15U) << "every message goes on, and the console hears it is full";
  const std::string file = devkit::readFile(dir / "parlavox-log-2026-11-24.csv");
  EXPECT_LE(file.size(), 400U);
  const std::string head =
      "time,kind,text\r\n"
      "2026-11-24T23:59:58+01:00,crew,\"🎧 Ann \"\"Lx\"\", Deck joined as Lighting\"\r\n"
      "2026-11-24T23:59:58+01:00,service,⚠️  Port taken\r\n"
      "2026-11-24T23:59:58+01:00,operator,📣 Operator announced\r\n";
  EXPECT_EQ(file.substr(0, head.size()), head);
  const std::string last = "service,⚠️  Show log full: the rest of the day was dropped\r\n";
  EXPECT_EQ(file.substr(file.size() - last.size()), last);
  EXPECT_EQ(ShowLog::csv(log.entries()), file) << "the download has what the file has";

  // Past midnight, west of Greenwich this time: a new day, its own file, the oldest kept gone.
  now = {kLastSecondsOfTheDay + 2 + 6 * 3600, -5 * 3600};
  log.tick();
  EXPECT_EQ(log.day(), "2026-11-25");
  EXPECT_TRUE(log.entries().empty());
  log.print({EventKind::call, Severity::info, "📞 Show control called Main"});
  EXPECT_EQ(devkit::readFile(dir / "parlavox-log-2026-11-25.csv"),
            "time,kind,text\r\n2026-11-25T00:00:00-05:00,call,📞 Show control called Main\r\n");
  EXPECT_FALSE(std::ifstream(dir / "parlavox-log-2026-11-11.csv").is_open());
}

TEST(ShowLog, SaysOnceThatItCannotWrite) {
  FakeConsole next;
  platform::LogDirectory files("/nonexistent/parlavox");
  ShowLog log(next, files, [] { return platform::WallTime{kLastSecondsOfTheDay, 0}; }, {});
  for (int i = 0; i < 3; ++i) {
    log.print({EventKind::crew, Severity::info, "🎧 Ann joined as Sound"});
    log.tick();
  }
  const auto lines = next.lines();
  EXPECT_EQ(
      std::count_if(lines.begin(), lines.end(),
                    [](const std::string& line) { return line.starts_with("⚠️  Show log"); }),
      1);
  EXPECT_EQ(log.entries().size(), 3U) << "the download keeps what the file could not";
}

}  // namespace
}  // namespace parlavox::test
