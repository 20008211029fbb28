#include "client/RosterTracker.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <limits>

namespace parlavox::client {
namespace {

std::optional<std::vector<RosterTracker::User>> usersOf(const nlohmann::json& message) {
  if (!message.is_object() || message.value("t", "") != "roster" || !message.contains("users") ||
      !message["users"].is_array()) {
    return std::nullopt;
  }
  std::vector<RosterTracker::User> users;
  for (const auto& entry : message["users"]) {
    if (!entry.is_object() || !entry.contains("id") || !entry["id"].is_number_unsigned() ||
        entry["id"].get<std::uint64_t>() > std::numeric_limits<std::uint16_t>::max() ||
        !entry.contains("name") || !entry["name"].is_string() || !entry.contains("role") ||
        !entry["role"].is_string()) {
      return std::nullopt;
    }
    users.push_back({entry["id"].get<std::uint16_t>(), entry["name"].get<std::string>(),
                     entry["role"].get<std::string>()});
  }
  return users;
}

const RosterTracker::User* withId(const std::vector<RosterTracker::User>& users, std::uint16_t id) {
  const auto found =
      std::find_if(users.begin(), users.end(), [id](const auto& user) { return user.id == id; });
  return found == users.end() ? nullptr : &*found;
}

}  // namespace

void RosterTracker::setSelf(std::uint16_t self) {
  if (last_ && self != self_) {
    std::erase_if(*last_, [this](const User& user) { return user.id == self_; });
  }
  self_ = self;
}

std::vector<std::string> RosterTracker::update(const nlohmann::json& message) {
  auto users = usersOf(message);
  if (!users) {
    return {};
  }
  std::vector<std::string> lines;
  if (!last_) {
    std::vector<std::string> everyone;
    for (const auto& user : *users) {
      everyone.push_back(
          fmt::format("{} ({}){}", user.name, user.role, user.id == self_ ? ", you" : ""));
    }
    lines.push_back(
        fmt::format("👥 On the intercom: {}",
                    everyone.empty() ? "nobody" : fmt::format("{}", fmt::join(everyone, "; "))));
  } else {
    for (const auto& user : *users) {
      const User* before = withId(*last_, user.id);
      if (user.id != self_ && (before == nullptr || *before != user)) {
        lines.push_back(fmt::format("🎧 {} joined as {}", user.name, user.role));
      }
    }
    for (const auto& user : *last_) {
      if (user.id != self_ && withId(*users, user.id) == nullptr) {
        lines.push_back(fmt::format("👋 {} ({}) left", user.name, user.role));
      }
    }
  }
  last_ = std::move(users);
  return lines;
}

}  // namespace parlavox::client
