#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "config/Subnet.h"

namespace parlavox {

// A show has at most this many channels: one bit each in a 32-bit channel mask.
inline constexpr std::size_t kChannelLimit = 32;

// A role as the roles file and the "config" message write it.
struct Role {
  std::string name;
  std::vector<std::string> talk;  // empty: a listen-only role
  std::vector<std::string> listen;
  bool operator==(const Role&) const = default;
};

// The roles file as decoded: everything that differs from one production to the next. The
// defaults below are the ones a file may leave out.
struct Config {
  std::string show = "Parlavox";
  std::vector<std::string> channels;  // position i is bit i of every channel mask
  std::vector<Role> roles;
  std::uint16_t oscPort = 47000;
  // Joined peers from one address at most: crew phones behind a NAT travel router share one, so
  // it is well above a department's size, yet one machine cannot fill the intercom.
  std::uint32_t peersPerHost = 32;
  // Audio datagrams a second one talker may send, beyond which the relay drops them: a talker
  // sends 50, so twice that is room for any real one and bounds what one peer can make it send.
  std::uint32_t audioPerTalker = 100;
  // What the crew station asks for before a browser may join; empty: nothing. Never written
  // back, printed or served.
  std::string crewPin = {};
  // Where crew devices may come from, on the intercom's port and the station's; empty: anywhere.
  // This machine itself always may.
  std::vector<Subnet> crewNetworks = {};
  bool operator==(const Config&) const = default;
};

// The built-in show: "Parlavox", four channels, six roles, OSC on 47000.
Config defaultConfig();

}  // namespace parlavox
