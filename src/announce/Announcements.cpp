#include "announce/Announcements.h"

#include <fmt/format.h>

#include <algorithm>

#include "announce/AnnouncementCommand.h"
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
                                                     platform::Console& console, Speaker& speaker,
                                                     FanOut fanOut) {
  return std::shared_ptr<Announcements>(
      new Announcements(show, loop, network, console, speaker, std::move(fanOut)));
}

Announcements::Announcements(const Show& show, platform::EventLoop& loop,
                             platform::Network& network, platform::Console& console,
                             Speaker& speaker, FanOut fanOut)
    : channels_(show.channels()),
      oscPort_(show.oscPort()),
      loop_(loop),
      console_(console),
      speaker_(speaker),
      fanOut_(std::move(fanOut)),
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
  if (target.kind == AnnouncementTarget::Kind::stop) {
    speaker_.stop();
    console_.info(platform::EventKind::announcement, "📣 Announcements stopped");
    return;
  }
  if (!text) {
    return;  // only the stop cue goes without a text
  }
  switch (target.kind) {
    case AnnouncementTarget::Kind::ignore:
    case AnnouncementTarget::Kind::stop:
      return;
    case AnnouncementTarget::Kind::unknownChannel:
      console_.warning(
          platform::EventKind::announcement,
          fmt::format("⚠️  OSC: unknown channel \"{}\"", printable(target.channel)));
      return;
    case AnnouncementTarget::Kind::announce:
      break;
  }
  if (const std::size_t length = codePoints(*text); length > kMaxTextLength) {
    console_.warning(platform::EventKind::announcement,
                     fmt::format("⚠️  OSC: announcement of {} characters refused (at most {})",
                                 length, kMaxTextLength));
    return;
  }
  console_.info(platform::EventKind::announcement,
                fmt::format("📣 Announcing: \"{}\"", printable(*text)));
  pending_.push_back(*text);
  ++asked_;
  // Both run on the speaker's thread: they touch nothing here, only hand over to the loop.
  speaker_.speak(
      *text,
      [weak = weak_from_this(), loop = &loop_, mask = target.mask](Bytes frame) {
        if (weak.expired()) {
          return;
        }
        loop->post([weak, mask, copy = std::vector<std::uint8_t>(frame.begin(), frame.end())] {
          if (auto self = weak.lock()) {
            self->broadcastAnnouncement(copy, mask);
          }
        });
      },
      [weak = weak_from_this(), loop = &loop_] {
        // The speaker ends its announcements in the order they were asked for.
        loop->post([weak] {
          if (auto self = weak.lock(); self && !self->pending_.empty()) {
            self->pending_.pop_front();
          }
        });
      });
}

void Announcements::broadcastAnnouncement(Bytes frame, std::uint32_t mask) {
  ++announcerSeq_;  // every frame takes a number, heard or not
  const auto header = wire::AudioHeader{wire::announcerID, mask, announcerSeq_}.bytes();
  fanOut_(mask, header, frame);
}

}  // namespace parlavox
