#include "announce/Announcements.h"

#include <fmt/format.h>

#include "announce/AnnouncementCommand.h"
#include "wire/Audio.h"
#include "wire/Protocol.h"

namespace parlavox {

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
  oscListener_.start(oscPort_, [weak = weak_from_this()](const wire::OSCMessage& message) {
    if (auto self = weak.lock()) {
      self->handleOSC(message);
    }
  });
  console_.print(fmt::format("✅ Listening for OSC announcements on UDP port {}", oscPort_));
}

void Announcements::handleOSC(const wire::OSCMessage& message) {
  const AnnouncementTarget target = resolveAnnouncement(message.address, channels_);
  switch (target.kind) {
    case AnnouncementTarget::Kind::ignore:
      return;
    case AnnouncementTarget::Kind::unknownChannel:
      console_.print(fmt::format("⚠️  OSC: unknown channel \"{}\"", target.channel));
      return;
    case AnnouncementTarget::Kind::announce:
      break;
  }
  console_.print(fmt::format("📣 Announcing: \"{}\"", message.text));
  // Runs on the speaker's thread: it touches nothing here, only hands the frame to the loop.
  speaker_.speak(
      message.text, [weak = weak_from_this(), loop = &loop_, mask = target.mask](Bytes frame) {
        if (weak.expired()) {
          return;
        }
        loop->post([weak, mask, copy = std::vector<std::uint8_t>(frame.begin(), frame.end())] {
          if (auto self = weak.lock()) {
            self->broadcastAnnouncement(copy, mask);
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
