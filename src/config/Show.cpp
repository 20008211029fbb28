#include "config/Show.h"

#include <utility>

#include "config/Names.h"

namespace parlavox {

std::uint32_t maskFor(const std::vector<std::string>& names,
                      const std::vector<std::string>& channels, std::vector<std::string>& unknown) {
  std::uint32_t mask = 0;
  for (const auto& name : names) {
    const auto index = findName(name, channels);
    if (!index) {
      unknown.push_back(name);
    } else if (*index < kChannelLimit) {
      mask |= std::uint32_t{1} << *index;
    }
  }
  return mask;
}

Show::Show(Config config) : config_(std::move(config)) {
  roles_.reserve(config_.roles.size());
  for (const Role& role : config_.roles) {
    RoleRights rights{role.name, 0, 0, {}};
    rights.talkMask = maskFor(role.talk, config_.channels, rights.unknownChannels);
    rights.listenMask = maskFor(role.listen, config_.channels, rights.unknownChannels);
    roles_.push_back(std::move(rights));
  }
}

const RoleRights* Show::findRole(std::string_view name) const {
  for (const RoleRights& role : roles_) {
    if (sameName(name, role.name)) {
      return &role;
    }
  }
  return nullptr;
}

}  // namespace parlavox
