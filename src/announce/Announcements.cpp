#include "announce/Announcements.h"

#include <fmt/format.h>

#include <algorithm>

#include "announce/AnnouncementCommand.h"
#include "announce/Chime.h"
#include "config/Printable.h"
#include "wire/Audio.h"
#include "wire/Protocol.h"

namespace parlavox {
namespace {

// Longer texts take minutes to speak and megabytes to hold; nobody reads such a line to a crew.
constexpr std::size_t kMaxTextLength = 1000;

// Counted in code points, not in characters: a letter under thousands of combining marks is one
// character but no less work to speak. `text` is valid UTF-8 (the OSC reader repairs it), so every
// byte but a continuation byte begins a code point.
std::size_t codePoints(std::string_view text) {
  return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) {
    return (static_cast<unsigned char>(c) & 0xC0U) != 0x80U;
  }));
}

}  // namespace

std::shared_ptr<Announcements> Announcements::create(const Show& show, platform::EventLoop& loop,
                                                     platform::Network& network,
                                                     platform::Console& console,
                                                     platform::Clock& clock, Speaker& speaker,
                                                     Crew& crew) {
  return std::shared_ptr<Announcements>(
      new Announcements(show, loop, network, console, clock, speaker, crew));
}

Announcements::Announcements(const Show& show, platform::EventLoop& loop,
                             platform::Network& network, platform::Console& console,
                             platform::Clock& clock, Speaker& speaker, Crew& crew)
    : channels_(show.channels()),
      oscPort_(show.oscPort()),
      loop_(loop),
      console_(console),
      clock_(clock),
      speaker_(speaker),
      crew_(crew),
      chime_(std::make_shared<const std::vector<std::int16_t>>(renderChime())),
      oscListener_(network, console) {}

void Announcements::start() {
  oscListener_.start(oscPort_, [weak = weak_from_this()](const std::string& address,
                                                         const std::optional<std::string>& text) {
    if (auto self = weak.lock()) {
      self->handleOSC(address, text);
    }
  });
  console_.info(platform::EventKind::report,
                fmt::format("✅ Listening for OSC announcements on UDP port {}", oscPort_));
}

void Announcements::handleOSC(const std::string& address, const std::optional<std::string>& text) {
  const AnnouncementTarget target = resolveAnnouncement(address, channels_);
  switch (target.kind) {
    case AnnouncementTarget::Kind::ignore:
      return;
    case AnnouncementTarget::Kind::unknownChannel:
      if (!text) {
        return;  // an announcement without words is no command at all
      }
      [[fallthrough]];
    case AnnouncementTarget::Kind::unknownCallChannel:
      console_.warning(
          platform::EventKind::announcement,
          fmt::format("⚠️  OSC: unknown channel \"{}\"", printable(target.channel)));
      return;
    case AnnouncementTarget::Kind::stop:
      stop();
      return;
    case AnnouncementTarget::Kind::call:
      crew_.callFromShowControl(target.mask);
      return;
    case AnnouncementTarget::Kind::announce:
      if (text) {
        if (const auto refused = announceTo(*text, target.mask)) {
          console_.warning(platform::EventKind::announcement, "⚠️  OSC: " + *refused);
        }
      }
      return;
  }
}

std::optional<std::string> Announcements::announce(const std::string& text,
                                                   std::string_view channel) {
  const auto mask = channelMask(channel, channels_);
  if (!mask) {
    return fmt::format("unknown channel \"{}\"", printable(channel));
  }
  return announceTo(text, *mask);
}

void Announcements::stop() {
  speaker_.stop();
  console_.info(platform::EventKind::announcement, "📣 Announcements stopped");
}

std::optional<std::string> Announcements::call(std::string_view channel) {
  const auto mask = channelMask(channel, channels_);
  if (!mask) {
    return fmt::format("unknown channel \"{}\"", printable(channel));
  }
  crew_.callFromShowControl(*mask);
  return std::nullopt;
}

std::optional<std::string> Announcements::announceTo(const std::string& text, std::uint32_t mask) {
  if (const std::size_t length = codePoints(text); length > kMaxTextLength) {
    return fmt::format("announcement of {} characters refused (at most {})", length,
                       kMaxTextLength);
  }
  if (std::all_of(text.begin(), text.end(), [](char c) { return c == ' ' || c == '\t'; })) {
    return "announcement without words refused";
  }
  console_.info(platform::EventKind::announcement,
                fmt::format("📣 Announcing: \"{}\"", printable(text)));
  pending_.push_back(text);
  recent_.push_back({text, mask, clock_.now()});
  if (recent_.size() > kRecentLimit) {
    recent_.pop_front();
  }
  ++asked_;
  // Both run on the speaker's thread: they touch nothing here, only hand over to the loop.
  speaker_.speak(
      text,
      [weak = weak_from_this(), loop = &loop_, mask, text, first = true](Bytes frame) mutable {
        if (weak.expired()) {
          return;
        }
        loop->post([weak, mask, words = first ? std::make_optional(text) : std::nullopt,
                    copy = std::vector<std::uint8_t>(frame.begin(), frame.end())] {
          if (auto self = weak.lock()) {
            self->broadcastAnnouncement(copy, mask, words ? &*words : nullptr);
          }
        });
        first = false;
      },
      [weak = weak_from_this(), loop = &loop_] {
        // The speaker ends its announcements in the order they were asked for.
        loop->post([weak] {
          if (auto self = weak.lock(); self && !self->pending_.empty()) {
            self->pending_.pop_front();
          }
        });
      });
  return std::nullopt;
}

void Announcements::ringChime(std::uint16_t caller, std::uint32_t mask) {
  speaker_.play(
      chime_, kChimeWait, [weak = weak_from_this(), loop = &loop_, caller, mask](Bytes frame) {
        if (weak.expired()) {
          return;
        }
        loop->post(
            [weak, caller, mask, copy = std::vector<std::uint8_t>(frame.begin(), frame.end())] {
              if (auto self = weak.lock()) {
                self->broadcastChime(copy, caller, mask);
              }
            });
      });
}

wire::AudioHeader Announcements::nextHeader(std::uint32_t mask) {
  return {wire::announcerID, mask, ++announcerSeq_};
}

// The words go just before the first frame, so that a station shows them as they are heard, not
// while they wait behind other announcements.
void Announcements::broadcastAnnouncement(Bytes frame, std::uint32_t mask,
                                          const std::string* text) {
  if (text != nullptr) {
    crew_.sendAnnouncementText(*text, mask);
  }
  const auto header = nextHeader(mask).bytes();
  crew_.sendToChannels(mask, header, frame);
}

void Announcements::broadcastChime(Bytes frame, std::uint16_t caller, std::uint32_t mask) {
  auto header = nextHeader(mask).bytes();
  crew_.sendChime(caller, mask, header, frame);
}

}  // namespace parlavox
