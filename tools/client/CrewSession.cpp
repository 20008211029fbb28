#include "client/CrewSession.h"

#include <fmt/format.h>

#include <algorithm>

#include "config/Printable.h"
#include "wire/Protocol.h"

namespace parlavox::client {
namespace {

using namespace std::chrono_literals;

constexpr int kAttempts = 3;
constexpr auto kAttemptTimeout = 1s;

std::string reasonOf(const wire::SimpleMsg& message) {
  return message.reason.value_or("no reason given");
}

wire::Incoming simple(wire::MessageType type) {
  return wire::Incoming::of(type);
}

// The server's message in a control datagram, or nothing.
std::optional<wire::ServerMessage> controlMessage(const Datagram& datagram) {
  if (datagram.empty() || datagram[0] != wire::kControlKind) {
    return std::nullopt;
  }
  return wire::decodeServerMessage(Bytes(datagram).subspan(1));
}

}  // namespace

CrewSession::CrewSession(IntercomClient& client, platform::Console& console, platform::Clock& clock,
                         std::string where)
    : client_(client), console_(console), clock_(clock), where_(std::move(where)) {}

std::optional<Datagram> CrewSession::receiveBefore(platform::MonoTime until) {
  const auto left = until - clock_.now();
  // Rounded up, so a wait of less than a millisecond does not spin.
  const auto timeout = std::max(std::chrono::ceil<std::chrono::milliseconds>(left), 0ms);
  return client_.receive(timeout);
}

std::optional<ShowInfo> CrewSession::fetchShow() {
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    client_.send(simple(wire::MessageType::hi));
    const auto deadline = clock_.now() + kAttemptTimeout;
    while (auto datagram = receiveBefore(deadline)) {
      auto message = controlMessage(*datagram);
      if (auto* config = message ? std::get_if<wire::ConfigMsg>(&*message) : nullptr) {
        lastHeard_ = clock_.now();
        return ShowInfo(std::move(*config));
      }
    }
  }
  console_.error(platform::EventKind::report,
                 fmt::format("❌ No answer from {}: is parlavox running there?", where_));
  return std::nullopt;
}

bool CrewSession::join(const ShowInfo& show, const std::string& role,
                       const std::optional<std::string>& name, wire::Features features) {
  if (show.findRole(role) == nullptr) {
    console_.error(
        platform::EventKind::report,
        fmt::format("❌ Unknown role \"{}\" (roles on this show: {})", role, show.roleNames()));
    return false;
  }
  show_ = show;
  role_ = role;
  name_ = name;
  features_ = features;
  refusal_.reset();
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    sendJoin();
    const auto deadline = clock_.now() + kAttemptTimeout;
    while (auto datagram = receiveBefore(deadline)) {
      handle(*datagram, clock_.now());
      if (joined_) {
        nextPing_ = clock_.now() + wire::kKeepaliveInterval;
        return true;
      }
      if (refusal_) {
        console_.error(platform::EventKind::report,
                       fmt::format("❌ {} refused to let us join as \"{}\": {}", where_, role,
                                   reasonOf(*refusal_)));
        return false;
      }
    }
  }
  console_.error(platform::EventKind::report,
                 fmt::format("❌ No answer from {} to joining as \"{}\"", where_, role));
  return false;
}

void CrewSession::sendJoin() {
  client_.send(wire::Incoming::join(name_, role_, features_));
}

void CrewSession::call(std::uint32_t mask) {
  client_.send(wire::Incoming::call(mask));
}

void CrewSession::serviceUntil(platform::MonoTime until, const std::atomic<bool>& stop) {
  for (;;) {
    const auto now = clock_.now();
    keepAlive(now);
    if (stop.load() || now >= until) {
      return;
    }
    if (auto datagram = receiveBefore(joined_ ? std::min(until, nextPing_) : until)) {
      handle(*datagram, clock_.now());
    }
  }
}

void CrewSession::keepAlive(platform::MonoTime now) {
  if (!joined_) {
    return;
  }
  if (now >= nextPing_) {
    client_.send(simple(wire::MessageType::ping));
    nextPing_ = now + wire::kKeepaliveInterval;
  }
  if (!silenceReported_ && now - lastHeard_ > kSilenceWarning) {
    silenceReported_ = true;
    console_.info(platform::EventKind::report,
                  fmt::format("⏱️  No word from {} for {} s; still trying", where_,
                              std::chrono::seconds(kSilenceWarning).count()));
  }
}

void CrewSession::handle(const Datagram& datagram, platform::MonoTime arrival) {
  if (datagram.empty()) {
    return;
  }
  lastHeard_ = arrival;
  if (silenceReported_) {
    silenceReported_ = false;
    console_.info(platform::EventKind::report, fmt::format("✅ {} answers again", where_));
  }
  if (const auto message = controlMessage(datagram)) {
    handleControl(*message);
  } else if (auto audio = Audio::parse(datagram); audio && joined_ && onAudio_) {
    onAudio_(*audio, arrival);
  }
}

void CrewSession::handleControl(const wire::ServerMessage& message) {
  if (const auto* welcome = std::get_if<wire::WelcomeMsg>(&message)) {
    id_ = welcome->id;
    talkMask_ = welcome->talkMask;
    listenMask_ = welcome->listenMask;
    role_ = welcome->role;  // the show's own spelling
    joined_ = true;
    roster_.setSelf(id_);
  } else if (const auto* roster = std::get_if<wire::RosterMsg>(&message)) {
    for (const auto& line : roster_.update(*roster)) {
      console_.info(platform::EventKind::report, line);
    }
  } else if (const auto* call = std::get_if<wire::CallMsg>(&message)) {
    console_.info(
        platform::EventKind::call,
        fmt::format("📞 {} called {}",
                    call->id == wire::announcerID ? "Show control" : roster_.describe(call->id),
                    show_ ? show_->channelNames(call->mask) : std::to_string(call->mask)));
  } else if (const auto* announce = std::get_if<wire::AnnounceMsg>(&message)) {
    console_.info(
        platform::EventKind::announcement,
        fmt::format("📣 \"{}\" on {}", printable(announce->text),
                    show_ ? show_->channelNames(announce->mask) : std::to_string(announce->mask)));
  } else if (const auto* simple = std::get_if<wire::SimpleMsg>(&message)) {
    if (simple->t == wire::MessageType::error) {
      if (joined_) {
        console_.warning(platform::EventKind::report,
                         fmt::format("⚠️  {} refused us: {}", where_, reasonOf(*simple)));
      } else {
        refusal_ = *simple;
      }
    } else if (simple->t == wire::MessageType::rejoin && joined_) {
      // The server has forgotten us (it restarted, or we were silent too long): the same join
      // again gets us back, perhaps under another id.
      console_.warning(platform::EventKind::report,
                       fmt::format("⚠️  {} had lost track of us; joining again", where_));
      sendJoin();
    }
  }
}

void CrewSession::leave() {
  if (joined_) {
    client_.send(simple(wire::MessageType::bye));
    joined_ = false;
  }
}

}  // namespace parlavox::client
