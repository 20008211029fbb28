#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "config/Config.h"

namespace parlavox {

// What a role may do, worked out once from the show's channel list.
struct RoleRights {
  std::string name;  // as the show spells it
  std::uint32_t talkMask = 0;
  std::uint32_t listenMask = 0;
  // The names in the role's lists that are no channel of the show, the talk list's first, once
  // per occurrence: the operator is told of each whenever the role is joined.
  std::vector<std::string> unknownChannels;
};

// The show as the server runs it: the decoded roles file with each role's masks worked out.
// Immutable; any thread may read it.
class Show {
 public:
  explicit Show(Config config);

  const Config& config() const { return config_; }
  const std::string& name() const { return config_.show; }
  const std::vector<std::string>& channels() const { return config_.channels; }
  std::uint16_t oscPort() const { return config_.oscPort; }

  // The first role named `name` (canonically equivalent spellings match), or nothing.
  const RoleRights* findRole(std::string_view name) const;

 private:
  Config config_;
  std::vector<RoleRights> roles_;
};

// Any thread; pure. The channel mask of `names`: bit i for the first channel equal to a name, for
// i below kChannelLimit. Each name that is no channel is appended to `unknown`.
std::uint32_t maskFor(const std::vector<std::string>& names,
                      const std::vector<std::string>& channels, std::vector<std::string>& unknown);

}  // namespace parlavox
