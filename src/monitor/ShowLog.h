#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "platform/Clock.h"
#include "platform/Console.h"
#include "platform/LogDirectory.h"

namespace parlavox {

// The show's log to keep: every console message an operator would put in a show report (the
// crew's comings and goings, announcements with their words, calls, links breaking up, the
// operator's actions, and every warning and error) with its wall-clock time. Each goes on to
// `next` as printed, is appended to the day's file in `files` (parlavox-log-YYYY-MM-DD.csv, by
// the local date), and kept in memory for the day's downloads. A day's file and its memory stop
// at `bytesPerDay` with one last line saying the rest was dropped; files older than `daysKept`
// days are removed at start and when the day changes. Messages are kept by kind, so that kinds
// added later are kept without this knowing them; only the start-up report and the server's own
// workings that went well are not.
class ShowLog final : public platform::Console {
 public:
  struct Limits {
    std::uint64_t bytesPerDay = std::uint64_t{16} << 20U;
    int daysKept = 14;
  };
  struct Entry {
    std::string time;  // ISO 8601 with the offset from UTC: 2026-11-24T19:30:05+01:00
    std::string kind;  // platform::kindName()
    std::string text;
  };

  // `next`, `files` and `now` outlive this. Opens the day's file and removes old ones.
  ShowLog(platform::Console& next, platform::LogDirectory& files,
          std::function<platform::WallTime()> now, Limits limits);

  // Whether the monitor's log and this keep `event`.
  static bool worthKeeping(const platform::ConsoleEvent& event);
  // "parlavox-log-2026-11-24.csv": the day's file, and the name its downloads are offered under.
  static std::string fileName(const std::string& day);

  // Any thread, as every console.
  void print(const platform::ConsoleEvent& event) override;
  // Any thread; once a minute: a new day begins (its file, old ones removed) even when nothing
  // is printed, and a file that could not be opened is tried again.
  void tick();

  // Any thread. The day's date (2026-11-24) and its entries since the server started, oldest first.
  std::string day() const;
  std::vector<Entry> entries() const;
  // The entries as CSV (a header row, RFC 4180) and as a JSON array of objects.
  static std::string csv(const std::vector<Entry>& entries);
  static std::string json(const std::vector<Entry>& entries);

 private:
  // Under the lock. Moves to `today` when it is a new day; any warning for the console is added
  // to `warnings`, printed once the lock is let go.
  void turnTo(const std::string& today, platform::WallTime now, std::vector<std::string>& warnings);
  void openFile(std::vector<std::string>& warnings);
  void removeOldFiles(platform::WallTime now);
  void write(const std::string& row, std::vector<std::string>& warnings);

  platform::Console& next_;
  platform::LogDirectory& files_;
  std::function<platform::WallTime()> now_;
  Limits limits_;

  mutable std::mutex mutex_;  // the announcer's thread prints too
  std::string day_;
  std::vector<Entry> entries_;
  // The day's bytes: what its file held when opened, and every row kept since.
  std::uint64_t used_ = 0;
  bool open_ = false;
  bool full_ = false;     // the day's bound was reached: the rest was dropped
  bool failing_ = false;  // the last write failed, and the console said so
};

}  // namespace parlavox
