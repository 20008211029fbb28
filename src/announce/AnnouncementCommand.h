#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace parlavox {

// What an OSC address asks of the announcer.
struct AnnouncementTarget {
  enum class Kind {
    ignore,              // not an announcement address
    unknownChannel,      // "/parlavox/say/{channel}" naming no configured channel
    unknownCallChannel,  // "/parlavox/call/{channel}" likewise
    announce,            // speak to `mask`
    stop,                // "/parlavox/stop": end what is spoken, drop what waits
    call,                // call the crew on `mask`
  };
  Kind kind = Kind::ignore;
  std::uint32_t mask = 0;
  std::string channel;  // the name asked for, for the unknown-channel warning
};

// "/parlavox/say" reaches every configured channel; "/parlavox/say/{channel}" one channel by name.
// "/parlavox/call" and "/parlavox/call/{channel}" likewise. "/parlavox/stop" is the show's "stop
// all".
AnnouncementTarget resolveAnnouncement(std::string_view address,
                                       const std::vector<std::string>& channels);

// The mask of the channel named `channel`, every configured channel for an empty name; nothing
// when it names no channel.
std::optional<std::uint32_t> channelMask(std::string_view channel,
                                         const std::vector<std::string>& channels);

}  // namespace parlavox
