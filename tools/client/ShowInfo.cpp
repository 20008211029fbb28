#include "client/ShowInfo.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <charconv>

#include "config/Config.h"
#include "config/Names.h"

namespace parlavox::client {
namespace {

std::string joined(const std::vector<std::string>& names) {
  return names.empty() ? "none" : fmt::format("{}", fmt::join(names, ", "));
}

std::string_view trimmed(std::string_view text) {
  const auto first = text.find_first_not_of(' ');
  if (first == std::string_view::npos) {
    return {};
  }
  const auto last = text.find_last_not_of(' ');
  return text.substr(first, last - first + 1);
}

}  // namespace

const Role* ShowInfo::findRole(std::string_view name) const {
  for (const auto& role : roles_) {
    if (sameName(role.name, name)) {
      return &role;
    }
  }
  return nullptr;
}

const Role* ShowInfo::firstRoleTalkingOn(std::uint32_t mask) const {
  for (const auto& role : roles_) {
    std::uint32_t talks = 0;
    for (const auto& name : role.talk) {
      if (const auto position = findName(name, channels_); position && *position < kChannelLimit) {
        talks |= std::uint32_t{1} << *position;
      }
    }
    if ((mask & ~talks) == 0) {
      return &role;
    }
  }
  return nullptr;
}

std::string ShowInfo::roleNames() const {
  std::vector<std::string> names;
  names.reserve(roles_.size());
  for (const auto& role : roles_) {
    names.push_back(role.name);
  }
  return joined(names);
}

std::string ShowInfo::channelNames(std::uint32_t mask) const {
  std::vector<std::string> names;
  for (std::size_t bit = 0; bit < channels_.size() && bit < kChannelLimit; ++bit) {
    if ((mask >> bit & 1U) != 0) {
      names.push_back(channels_[bit]);
    }
  }
  return joined(names);
}

std::vector<std::string> ShowInfo::describe() const {
  std::vector<std::string> lines;
  lines.push_back(fmt::format("   Channels: {}", joined(channels_)));
  lines.emplace_back(roles_.empty() ? "   Roles:    none" : "   Roles:");
  for (const auto& role : roles_) {
    const std::string talk =
        role.talk.empty() ? "listen only" : fmt::format("talks on {}", joined(role.talk));
    lines.push_back(fmt::format("     • {}: {}; hears {}", role.name, talk, joined(role.listen)));
  }
  return lines;
}

std::variant<std::uint32_t, std::string> ShowInfo::parseMask(std::string_view text) const {
  const std::string_view whole = trimmed(text);
  if (whole.empty()) {
    return std::string("--mask is empty");
  }
  // A number first: a channel whose name is all digits is unlikely, and its name would be
  // ambiguous anyway.
  int base = 10;
  std::string_view digits = whole;
  if (digits.starts_with("0x") || digits.starts_with("0X")) {
    base = 16;
    digits.remove_prefix(2);
  }
  std::uint32_t number = 0;
  const auto [stop, error] =
      std::from_chars(digits.data(), digits.data() + digits.size(), number, base);
  if (!digits.empty() && error == std::errc() && stop == digits.data() + digits.size()) {
    return number;
  }
  if (error == std::errc::result_out_of_range) {
    return fmt::format("--mask {} does not fit {} channels", whole, kChannelLimit);
  }

  std::uint32_t mask = 0;
  std::string_view rest = whole;
  for (;;) {
    const auto comma = rest.find(',');
    const std::string_view name = trimmed(rest.substr(0, comma));
    const auto position = findName(name, channels_);
    if (!position || *position >= kChannelLimit) {
      return fmt::format("unknown channel \"{}\" (channels: {})", name, joined(channels_));
    }
    mask |= std::uint32_t{1} << *position;
    if (comma == std::string_view::npos) {
      break;
    }
    rest.remove_prefix(comma + 1);
  }
  return mask;
}

}  // namespace parlavox::client
