#include "announce/AnnouncementCommand.h"

#include <algorithm>
#include <cstddef>

#include "config/Config.h"
#include "config/Names.h"

namespace parlavox {
namespace {

constexpr std::string_view kSayAll = "/parlavox/say";
constexpr std::string_view kSayChannel = "/parlavox/say/";
constexpr std::string_view kStop = "/parlavox/stop";

// Bits 0 to count-1; built from the top so that a full mask never shifts by its width.
std::uint32_t lowBits(std::size_t count) {
  const std::size_t bits = std::min(count, kChannelLimit);
  return bits == 0 ? 0 : ~std::uint32_t{0} >> (kChannelLimit - bits);
}

}  // namespace

AnnouncementTarget resolveAnnouncement(std::string_view address,
                                       const std::vector<std::string>& channels) {
  AnnouncementTarget target;
  if (sameName(address, kStop)) {
    target.kind = AnnouncementTarget::Kind::stop;
    return target;
  }
  if (sameName(address, kSayAll)) {
    target.kind = AnnouncementTarget::Kind::announce;
    target.mask = lowBits(channels.size());
    return target;
  }
  // The prefix is matched character by character, so a combining mark after its last "/" makes
  // another character and the address no command.
  const std::string head = firstGraphemes(address, kSayChannel.size());
  if (!sameName(head, kSayChannel)) {
    return target;
  }
  const std::string_view name = address.substr(head.size());
  const auto position = findName(name, channels);
  if (!position) {
    target.kind = AnnouncementTarget::Kind::unknownChannel;
    target.channel = std::string(name);
    return target;
  }
  target.kind = AnnouncementTarget::Kind::announce;
  target.mask = *position < kChannelLimit ? std::uint32_t{1} << *position : 0;
  return target;
}

}  // namespace parlavox
