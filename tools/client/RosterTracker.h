#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "wire/ControlMessages.h"

namespace parlavox::client {

// Turns the server's "roster" messages, each a complete list, into console lines about what
// changed since the one before.
class RosterTracker {
 public:
  // Any thread. `self` is our own id (from "welcome"), left out of the change lines.
  explicit RosterTracker(std::uint16_t self = 0) : self_(self) {}
  // The owner's thread. After a rejoin the server may have given us another id; our entry under
  // the old one is forgotten, so that we are not reported as having left.
  void setSelf(std::uint16_t self);

  // The owner's thread. The lines that the "roster" message `message` calls for: the whole crew
  // the first time, then one line per crew member who joined, left, or changed name or role.
  std::vector<std::string> update(const wire::RosterMsg& message);
  // The owner's thread. "Name (Role)" of the crew member `id` in the last roster, else "#id".
  std::string describe(std::uint16_t id) const;

 private:
  std::uint16_t self_;
  std::optional<std::vector<wire::RosterUser>> last_;
};

}  // namespace parlavox::client
