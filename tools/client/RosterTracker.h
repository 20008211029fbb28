#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

namespace parlavox::client {

// Turns the server's "roster" messages, each a complete list, into console lines about what
// changed since the one before.
class RosterTracker {
 public:
  struct User {
    std::uint16_t id = 0;
    std::string name;
    std::string role;
    bool operator==(const User&) const = default;
  };

  // Any thread. `self` is our own id (from "welcome"), left out of the change lines.
  explicit RosterTracker(std::uint16_t self = 0) : self_(self) {}
  // The owner's thread. After a rejoin the server may have given us another id; our entry under
  // the old one is forgotten, so that we are not reported as having left.
  void setSelf(std::uint16_t self);

  // The owner's thread. The lines that the "roster" message `message` calls for: the whole crew
  // the first time, then one line per crew member who joined, left, or changed name or role.
  // Nothing for a message that is not a well-formed roster.
  std::vector<std::string> update(const nlohmann::json& message);

 private:
  std::uint16_t self_;
  std::optional<std::vector<User>> last_;
};

}  // namespace parlavox::client
