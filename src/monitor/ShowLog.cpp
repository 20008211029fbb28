#include "monitor/ShowLog.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <nlohmann/json.hpp>

namespace parlavox {
namespace {

constexpr std::int64_t kSecondsPerDay = 24 * 60 * 60;
constexpr std::string_view kFilePrefix = "parlavox-log-";
constexpr std::string_view kFileSuffix = ".csv";
constexpr std::string_view kHeader = "time,kind,text\r\n";

// The local day number since 1970 of `time`.
std::int64_t localDay(platform::WallTime time) {
  const std::int64_t local = time.unixSeconds + time.utcOffsetSeconds;
  return local >= 0 ? local / kSecondsPerDay : (local - kSecondsPerDay + 1) / kSecondsPerDay;
}

std::string dateOf(std::int64_t day) {
  const std::chrono::year_month_day date{
      std::chrono::sys_days{std::chrono::days{static_cast<int>(day)}}};
  return fmt::format("{:04}-{:02}-{:02}", static_cast<int>(date.year()),
                     static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()));
}

std::string timeOf(platform::WallTime time) {
  const std::int64_t day = localDay(time);
  const std::int64_t second = time.unixSeconds + time.utcOffsetSeconds - day * kSecondsPerDay;
  const std::int32_t offset =
      time.utcOffsetSeconds < 0 ? -time.utcOffsetSeconds : time.utcOffsetSeconds;
  return fmt::format("{}T{:02}:{:02}:{:02}{}{:02}:{:02}", dateOf(day), second / 3600,
                     second / 60 % 60, second % 60, time.utcOffsetSeconds < 0 ? '-' : '+',
                     offset / 3600, offset / 60 % 60);
}

// A field as RFC 4180 has it: quoted, its quotes doubled, when it holds a comma, a quote or a
// line break.
std::string csvField(const std::string& field) {
  if (field.find_first_of(",\"\r\n") == std::string::npos) {
    return field;
  }
  std::string quoted = "\"";
  for (const char each : field) {
    quoted += each;
    if (each == '"') {
      quoted += '"';
    }
  }
  return quoted + '"';
}

std::string csvRow(const ShowLog::Entry& entry) {
  return fmt::format("{},{},{}\r\n", csvField(entry.time), csvField(entry.kind),
                     csvField(entry.text));
}

// The day's last entry once its bound is reached.
ShowLog::Entry droppedEntry(platform::WallTime now) {
  return {timeOf(now), std::string(platform::kindName(platform::EventKind::service)),
          "⚠️  Show log full: the rest of the day was dropped"};
}

}  // namespace

ShowLog::ShowLog(platform::Console& next, platform::LogDirectory& files,
                 std::function<platform::WallTime()> now, Limits limits)
    : next_(next), files_(files), now_(std::move(now)), limits_(limits) {
  tick();
}

bool ShowLog::worthKeeping(const platform::ConsoleEvent& event) {
  return (event.kind != platform::EventKind::report &&
          event.kind != platform::EventKind::service) ||
         event.severity != platform::Severity::info;
}

std::string ShowLog::fileName(const std::string& day) {
  return fmt::format("{}{}{}", kFilePrefix, day, kFileSuffix);
}

void ShowLog::print(const platform::ConsoleEvent& event) {
  if (!worthKeeping(event)) {
    next_.print(event);
    return;
  }
  const platform::WallTime now = now_();
  std::vector<std::string> warnings;
  {
    const std::lock_guard lock(mutex_);
    turnTo(dateOf(localDay(now)), now, warnings);
    if (!full_) {
      Entry entry{timeOf(now), std::string(platform::kindName(event.kind)),
                  std::string(event.text)};
      std::string row = csvRow(entry);
      const Entry dropped = droppedEntry(now);
      const std::string last = csvRow(dropped);
      if (used_ + row.size() + last.size() > limits_.bytesPerDay) {
        full_ = true;
        entry = dropped;
        row = last;
        warnings.push_back(dropped.text);
      }
      used_ += row.size();
      write(row, warnings);
      entries_.push_back(std::move(entry));
    }
  }
  // Kept before it is seen: whoever reads a line on the console finds it in the file.
  next_.print(event);
  for (const std::string& warning : warnings) {
    next_.warning(platform::EventKind::service, warning);
  }
}

void ShowLog::tick() {
  const platform::WallTime now = now_();
  std::vector<std::string> warnings;
  {
    const std::lock_guard lock(mutex_);
    turnTo(dateOf(localDay(now)), now, warnings);
    if (!open_) {
      openFile(warnings);
    }
  }
  for (const std::string& warning : warnings) {
    next_.warning(platform::EventKind::service, warning);
  }
}

void ShowLog::turnTo(const std::string& today, platform::WallTime now,
                     std::vector<std::string>& warnings) {
  if (today == day_) {
    return;
  }
  day_ = today;
  entries_.clear();
  used_ = 0;
  full_ = false;
  openFile(warnings);
  removeOldFiles(now);
}

void ShowLog::openFile(std::vector<std::string>& warnings) {
  const std::string name = fileName(day_);
  const auto opened = files_.open(name);
  open_ = static_cast<bool>(opened);
  if (!opened) {
    if (!failing_) {
      warnings.push_back(
          fmt::format("⚠️  Show log: couldn't open {}: {} (tried again each minute)",
                      files_.pathOf(name), opened.error()));
    }
    failing_ = true;
    return;
  }
  failing_ = false;
  // What the day kept in memory while the file could not be had counts too; a file that reached
  // its bound before a restart stays as it is.
  used_ = std::max(used_, *opened);
  full_ = full_ || used_ + kHeader.size() > limits_.bytesPerDay;
  if (*opened == 0) {
    used_ += kHeader.size();
    write(std::string(kHeader), warnings);
  }
}

void ShowLog::write(const std::string& row, std::vector<std::string>& warnings) {
  if (!open_) {
    return;
  }
  if (const auto written = files_.append(row); !written) {
    if (!failing_) {
      warnings.push_back(
          fmt::format("⚠️  Show log: couldn't write {}: {} (the day's download "
                      "still has it)",
                      files_.pathOf(fileName(day_)), written.error()));
    }
    failing_ = true;
  } else {
    failing_ = false;
  }
}

void ShowLog::removeOldFiles(platform::WallTime now) {
  const std::string oldestKept = dateOf(localDay(now) - limits_.daysKept + 1);
  const auto names = files_.names();
  if (!names) {
    return;
  }
  for (const std::string& name : *names) {
    const std::size_t dateLength = oldestKept.size();
    if (name.size() == kFilePrefix.size() + dateLength + kFileSuffix.size() &&
        name.starts_with(kFilePrefix) && name.ends_with(kFileSuffix) &&
        name.substr(kFilePrefix.size(), dateLength) < oldestKept) {
      files_.remove(name);
    }
  }
}

std::string ShowLog::day() const {
  const std::lock_guard lock(mutex_);
  return day_;
}

std::vector<ShowLog::Entry> ShowLog::entries() const {
  const std::lock_guard lock(mutex_);
  return entries_;
}

std::string ShowLog::csv(const std::vector<Entry>& entries) {
  std::string text(kHeader);
  for (const Entry& entry : entries) {
    text += csvRow(entry);
  }
  return text;
}

std::string ShowLog::json(const std::vector<Entry>& entries) {
  auto array = nlohmann::json::array();
  for (const Entry& entry : entries) {
    array.push_back({{"time", entry.time}, {"kind", entry.kind}, {"text", entry.text}});
  }
  return array.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace parlavox
