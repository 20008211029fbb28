#include "client/CrewSession.h"

#include <fmt/format.h>

#include <algorithm>

#include "config/Protocol.h"

namespace parlavox::client {
namespace {

using namespace std::chrono_literals;

constexpr int kAttempts = 3;
constexpr auto kAttemptTimeout = 1s;

std::string reasonOf(const nlohmann::json& message) {
  const auto found = message.find("reason");
  return found != message.end() && found->is_string() ? found->get<std::string>()
                                                      : std::string("no reason given");
}

template <typename T>
std::optional<T> unsignedField(const nlohmann::json& message, const char* key) {
  const auto found = message.find(key);
  if (found == message.end() || !found->is_number_unsigned() ||
      found->get<std::uint64_t>() > std::numeric_limits<T>::max()) {
    return std::nullopt;
  }
  return found->get<T>();
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
    client_.sendControl({{"t", "hi"}});
    const auto deadline = clock_.now() + kAttemptTimeout;
    while (auto datagram = receiveBefore(deadline)) {
      if (datagram->empty() || (*datagram)[0] != protocol::kindControl) {
        continue;
      }
      const auto message =
          nlohmann::json::parse(datagram->begin() + 1, datagram->end(), nullptr, false);
      if (!message.is_object() || message.value("t", "") != "config") {
        continue;
      }
      lastHeard_ = clock_.now();
      if (auto show = ShowInfo::fromConfigMessage(message)) {
        return show;
      }
      console_.print(fmt::format("❌ {} sent a show description this client cannot read", where_));
      return std::nullopt;
    }
  }
  console_.print(fmt::format("❌ No answer from {}: is parlavox running there?", where_));
  return std::nullopt;
}

bool CrewSession::join(const ShowInfo& show, const std::string& role,
                       const std::optional<std::string>& name) {
  if (show.findRole(role) == nullptr) {
    console_.print(
        fmt::format("❌ Unknown role \"{}\" (roles on this show: {})", role, show.roleNames()));
    return false;
  }
  role_ = role;
  name_ = name;
  refusal_.reset();
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    sendJoin();
    const auto deadline = clock_.now() + kAttemptTimeout;
    while (auto datagram = receiveBefore(deadline)) {
      handle(*datagram, clock_.now());
      if (joined_) {
        nextPing_ = clock_.now() + kPingInterval;
        return true;
      }
      if (refusal_) {
        console_.print(fmt::format("❌ {} refused to let us join as \"{}\": {}", where_, role,
                                   reasonOf(*refusal_)));
        return false;
      }
    }
  }
  console_.print(fmt::format("❌ No answer from {} to joining as \"{}\"", where_, role));
  return false;
}

void CrewSession::sendJoin() {
  nlohmann::json message{{"t", "join"}, {"role", role_}};
  if (name_) {
    message["name"] = *name_;
  }
  client_.sendControl(message);
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
    client_.sendControl({{"t", "ping"}});
    nextPing_ = now + kPingInterval;
  }
  if (!silenceReported_ && now - lastHeard_ > kSilenceWarning) {
    silenceReported_ = true;
    console_.print(fmt::format("⏱️  No word from {} for {} s; still trying", where_,
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
    console_.print(fmt::format("✅ {} answers again", where_));
  }
  if (datagram[0] == protocol::kindControl) {
    const auto message =
        nlohmann::json::parse(datagram.begin() + 1, datagram.end(), nullptr, false);
    if (message.is_object()) {
      handleControl(message);
    }
  } else if (auto audio = Audio::parse(datagram); audio && joined_ && onAudio_) {
    onAudio_(*audio, arrival);
  }
}

void CrewSession::handleControl(const nlohmann::json& message) {
  const std::string type = message.value("t", "");
  if (type == "welcome") {
    const auto id = unsignedField<std::uint16_t>(message, "id");
    const auto talk = unsignedField<std::uint32_t>(message, "talkMask");
    const auto listen = unsignedField<std::uint32_t>(message, "listenMask");
    if (!id || !talk || !listen) {
      return;
    }
    id_ = *id;
    talkMask_ = *talk;
    listenMask_ = *listen;
    if (const auto role = message.find("role"); role != message.end() && role->is_string()) {
      role_ = role->get<std::string>();  // the show's own spelling
    }
    joined_ = true;
    roster_.setSelf(id_);
  } else if (type == "error") {
    if (joined_) {
      console_.print(fmt::format("⚠️  {} refused us: {}", where_, reasonOf(message)));
    } else {
      refusal_ = message;
    }
  } else if (type == "roster") {
    for (const auto& line : roster_.update(message)) {
      console_.print(line);
    }
  } else if (type == "rejoin" && joined_) {
    // The server has forgotten us (it restarted, or we were silent too long): the same join
    // again gets us back, perhaps under another id.
    console_.print(fmt::format("⚠️  {} had lost track of us; joining again", where_));
    sendJoin();
  }
}

void CrewSession::leave() {
  if (joined_) {
    client_.sendControl({{"t", "bye"}});
    joined_ = false;
  }
}

}  // namespace parlavox::client
