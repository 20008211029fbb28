#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "config/Config.h"
#include "wire/ControlMessages.h"

namespace parlavox::client {

// The show as the server describes it in its "config" reply: channels in mask-bit order, roles.
class ShowInfo {
 public:
  // Any thread. The show of a "config" message.
  explicit ShowInfo(wire::ConfigMsg message)
      : channels_(std::move(message.channels)), roles_(std::move(message.roles)) {}

  const std::vector<std::string>& channels() const { return channels_; }
  const std::vector<Role>& roles() const { return roles_; }

  // Any thread. The role named `name` (canonically equivalent spellings match), or nothing.
  const Role* findRole(std::string_view name) const;
  // Any thread. The first role, in the show's order, that may talk on every channel of `mask`.
  const Role* firstRoleTalkingOn(std::uint32_t mask) const;
  // Any thread. "A, B, C": every role's name, in the show's order.
  std::string roleNames() const;
  // Any thread. The channel names of the bits set in `mask`, "A, B"; "none" when there are none.
  std::string channelNames(std::uint32_t mask) const;
  // Any thread. The console lines that describe the show for "info", each line whole.
  std::vector<std::string> describe() const;

  // Any thread. A --mask value as a channel mask: a number (decimal, or hexadecimal after "0x")
  // or channel names separated by commas, spaces around each name ignored. A string saying what
  // is wrong when it is neither.
  std::variant<std::uint32_t, std::string> parseMask(std::string_view text) const;

 private:
  std::vector<std::string> channels_;
  std::vector<Role> roles_;
};

}  // namespace parlavox::client
