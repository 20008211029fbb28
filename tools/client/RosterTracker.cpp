#include "client/RosterTracker.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>

namespace parlavox::client {
namespace {

const wire::RosterUser* withId(const std::vector<wire::RosterUser>& users, std::uint16_t id) {
  const auto found =
      std::find_if(users.begin(), users.end(), [id](const auto& user) { return user.id == id; });
  return found == users.end() ? nullptr : &*found;
}

}  // namespace

void RosterTracker::setSelf(std::uint16_t self) {
  if (last_ && self != self_) {
    std::erase_if(*last_, [this](const wire::RosterUser& user) { return user.id == self_; });
  }
  self_ = self;
}

std::vector<std::string> RosterTracker::update(const wire::RosterMsg& message) {
  const std::vector<wire::RosterUser>& users = message.users;
  std::vector<std::string> lines;
  if (!last_) {
    std::vector<std::string> everyone;
    everyone.reserve(users.size());
    for (const auto& user : users) {
      everyone.push_back(
          fmt::format("{} ({}){}", user.name, user.role, user.id == self_ ? ", you" : ""));
    }
    lines.push_back(
        fmt::format("👥 On the intercom: {}",
                    everyone.empty() ? "nobody" : fmt::format("{}", fmt::join(everyone, "; "))));
  } else {
    for (const auto& user : users) {
      const wire::RosterUser* before = withId(*last_, user.id);
      if (user.id != self_ && (before == nullptr || *before != user)) {
        lines.push_back(fmt::format("🎧 {} joined as {}", user.name, user.role));
      }
    }
    for (const auto& user : *last_) {
      if (user.id != self_ && withId(users, user.id) == nullptr) {
        lines.push_back(fmt::format("👋 {} ({}) left", user.name, user.role));
      }
    }
  }
  last_ = users;
  return lines;
}

std::string RosterTracker::describe(std::uint16_t id) const {
  const wire::RosterUser* user = last_ ? withId(*last_, id) : nullptr;
  return user != nullptr ? fmt::format("{} ({})", user->name, user->role) : fmt::format("#{}", id);
}

}  // namespace parlavox::client
