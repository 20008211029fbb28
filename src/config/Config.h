#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace parlavox {

struct Role {
  std::string name;
  std::vector<std::string> talk;
  std::vector<std::string> listen;
  bool operator==(const Role&) const = default;
};

// The show: everything that differs from one production to the next. Loaded once, never changed.
struct Config {
  std::string show;
  std::vector<std::string> channels;  // position i is bit i of every channel mask
  std::vector<Role> roles;
  std::uint16_t oscPort = 47000;
  bool operator==(const Config&) const = default;
};

// The built-in show: "Parlavox", four channels, six roles, OSC on 47000.
Config defaultConfig();

}  // namespace parlavox
