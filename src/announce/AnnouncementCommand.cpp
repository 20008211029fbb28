#include "announce/AnnouncementCommand.h"

#include <algorithm>
#include <cstddef>
#include <optional>

#include "config/Config.h"
#include "config/Names.h"

namespace parlavox {
namespace {

constexpr std::string_view kSayAll = "/parlavox/say";
constexpr std::string_view kSayChannel = "/parlavox/say/";
constexpr std::string_view kStop = "/parlavox/stop";
constexpr std::string_view kCallAll = "/parlavox/call";
constexpr std::string_view kCallChannel = "/parlavox/call/";

// Bits 0 to count-1; built from the top so that a full mask never shifts by its width.
std::uint32_t lowBits(std::size_t count) {
  const std::size_t bits = std::min(count, kChannelLimit);
  return bits == 0 ? 0 : ~std::uint32_t{0} >> (kChannelLimit - bits);
}

// `address` as `all` (every channel) or `prefix` and a channel's name, for a command of `kind`
// (`unknown` when it names no channel); nothing when it is neither.
std::optional<AnnouncementTarget> resolveChannels(std::string_view address, std::string_view all,
                                                  std::string_view prefix,
                                                  AnnouncementTarget::Kind kind,
                                                  AnnouncementTarget::Kind unknown,
                                                  const std::vector<std::string>& channels) {
  AnnouncementTarget target;
  if (sameName(address, all)) {
    target.kind = kind;
    target.mask = lowBits(channels.size());
    return target;
  }
  // The prefix is matched character by character, so a combining mark after its last "/" makes
  // another character and the address no command.
  const std::string head = firstGraphemes(address, prefix.size());
  if (!sameName(head, prefix)) {
    return std::nullopt;
  }
  const std::string_view name = address.substr(head.size());
  const auto mask = name.empty() ? std::nullopt : channelMask(name, channels);
  if (!mask) {
    target.kind = unknown;
    target.channel = std::string(name);
    return target;
  }
  target.kind = kind;
  target.mask = *mask;
  return target;
}

}  // namespace

std::optional<std::uint32_t> channelMask(std::string_view channel,
                                         const std::vector<std::string>& channels) {
  if (channel.empty()) {
    return lowBits(channels.size());
  }
  const auto position = findName(channel, channels);
  if (!position) {
    return std::nullopt;
  }
  return *position < kChannelLimit ? std::uint32_t{1} << *position : 0;
}

AnnouncementTarget resolveAnnouncement(std::string_view address,
                                       const std::vector<std::string>& channels) {
  if (sameName(address, kStop)) {
    AnnouncementTarget stop;
    stop.kind = AnnouncementTarget::Kind::stop;
    return stop;
  }
  using Kind = AnnouncementTarget::Kind;
  if (auto say = resolveChannels(address, kSayAll, kSayChannel, Kind::announce,
                                 Kind::unknownChannel, channels)) {
    return *say;
  }
  return resolveChannels(address, kCallAll, kCallChannel, Kind::call, Kind::unknownCallChannel,
                         channels)
      .value_or(AnnouncementTarget{});
}

}  // namespace parlavox
