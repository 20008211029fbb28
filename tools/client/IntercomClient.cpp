#include "client/IntercomClient.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <system_error>

namespace parlavox::client {
namespace {

using Clock = std::chrono::steady_clock;

}  // namespace

std::optional<Audio> Audio::parse(std::span<const std::uint8_t> datagram) {
  const auto header = wire::AudioHeader::read(datagram);
  if (!header) {
    return std::nullopt;
  }
  Audio audio;
  static_cast<wire::AudioHeader&>(audio) = *header;
  audio.samples.assign(datagram.begin() + wire::AudioHeader::kSize, datagram.end());
  return audio;
}

IntercomClient::IntercomClient(const std::string& host, std::uint16_t port,
                               const std::string& from) {
  sockaddr_in local{};
  local.sin_family = AF_INET;
  if (!from.empty() && ::inet_pton(AF_INET, from.c_str(), &local.sin_addr) != 1) {
    throw std::system_error(std::make_error_code(std::errc::invalid_argument),
                            "not an IPv4 address: " + from);
  }
  addrinfo hints{};
  hints.ai_family = from.empty() ? AF_UNSPEC : AF_INET;
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo* found = nullptr;
  const int status = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
  if (status != 0) {
    throw std::system_error(std::make_error_code(std::errc::host_unreachable),
                            "can't resolve " + host + ": " + gai_strerror(status));
  }
  int error = 0;
  for (const addrinfo* a = found; a != nullptr; a = a->ai_next) {
    fd_ = ::socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC, a->ai_protocol);
    if (fd_ >= 0 &&
        (from.empty() ||
         ::bind(fd_, reinterpret_cast<const sockaddr*>(&local), sizeof local) == 0) &&
        ::connect(fd_, a->ai_addr, a->ai_addrlen) == 0) {
      break;
    }
    error = errno;
    if (fd_ >= 0) {
      ::close(fd_);
    }
    fd_ = -1;
  }
  freeaddrinfo(found);
  if (fd_ < 0) {
    throw std::system_error(error, std::system_category(), "can't reach " + host);
  }
}

IntercomClient::~IntercomClient() {
  if (fd_ >= 0) {
    ::close(fd_);
  }
}

void IntercomClient::sendRaw(std::span<const std::uint8_t> datagram) {
  if (!impairment_) {
    sendNow(datagram);
    return;
  }
  sendHeld();
  std::uniform_real_distribution<double> chance(0.0, 1.0);
  if (chance(random_) < impairment_->loss) {
    return;
  }
  const int copies = chance(random_) < impairment_->duplicate ? 2 : 1;
  for (int i = 0; i < copies; ++i) {
    if (chance(random_) < impairment_->reorder) {
      const auto hold =
          std::chrono::duration<double, std::milli>(impairment_->delay) * chance(random_);
      held_.emplace_back(Clock::now() + std::chrono::duration_cast<Clock::duration>(hold),
                         Datagram(datagram.begin(), datagram.end()));
    } else {
      sendNow(datagram);
    }
  }
}

void IntercomClient::sendNow(std::span<const std::uint8_t> datagram) {
  (void)::send(fd_, datagram.data(), datagram.size(), MSG_NOSIGNAL);
}

void IntercomClient::impair(const Impairment& impairment) {
  impairment_ = impairment;
  random_.seed(impairment.seed);
}

std::optional<std::chrono::milliseconds> IntercomClient::sendHeld() {
  const auto now = Clock::now();
  std::optional<Clock::time_point> next;
  std::erase_if(held_, [&](const auto& entry) {
    if (entry.first <= now) {
      sendNow(entry.second);
      return true;
    }
    next = next ? std::min(*next, entry.first) : entry.first;
    return false;
  });
  if (!next) {
    return std::nullopt;
  }
  return std::chrono::ceil<std::chrono::milliseconds>(*next - now);
}

void IntercomClient::sendControl(const nlohmann::json& message) {
  sendRaw(asBytes(wire::controlDatagram(message.dump())));
}

void IntercomClient::send(const wire::Incoming& message) {
  sendRaw(asBytes(wire::encodeControl(message)));
}

void IntercomClient::sendAudio(std::uint16_t senderID, std::uint32_t mask, std::uint16_t seq,
                               std::span<const std::uint8_t> samples) {
  sendRaw(wire::encodeAudio({senderID, mask, seq}, samples));
}

std::optional<Datagram> IntercomClient::receive(std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  for (;;) {
    auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    const auto heldDue = sendHeld();
    const bool heldFirst = heldDue && heldDue->count() < left;
    if (heldFirst) {
      left = heldDue->count();
    }
    pollfd p{fd_, POLLIN, 0};
    const int ready = ::poll(&p, 1, static_cast<int>(std::max<long long>(left, 0)));
    if (ready == 0) {
      if (heldFirst) {
        continue;
      }
      return std::nullopt;
    }
    if (ready < 0 && errno == EINTR) {
      continue;
    }
    const ssize_t n = ::recv(fd_, buffer_.data(), buffer_.size(), 0);
    if (n < 0) {
      if (errno == EINTR || errno == ECONNREFUSED) {
        continue;  // ICMP from an earlier send: nothing to read yet
      }
      return std::nullopt;
    }
    return Datagram(buffer_.begin(), buffer_.begin() + n);
  }
}

void IntercomClient::keep(Datagram datagram) {
  if (!datagram.empty() && datagram[0] == wire::kControlKind) {
    auto parsed = nlohmann::json::parse(datagram.begin() + 1, datagram.end(), nullptr, false);
    if (!parsed.is_discarded()) {
      controls_.push_back(std::move(parsed));
    }
  } else if (auto audio = Audio::parse(datagram)) {
    audio_.push_back(std::move(*audio));
  }
}

template <typename Item>
std::optional<Item> IntercomClient::takeNext(std::deque<Item>& queue,
                                             std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  while (queue.empty()) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    auto datagram = receive(std::max(left, std::chrono::milliseconds(0)));
    if (!datagram) {
      return std::nullopt;
    }
    keep(std::move(*datagram));
  }
  auto item = std::move(queue.front());
  queue.pop_front();
  return item;
}

std::optional<nlohmann::json> IntercomClient::nextControl(std::chrono::milliseconds timeout) {
  return takeNext(controls_, timeout);
}

std::optional<Audio> IntercomClient::nextAudio(std::chrono::milliseconds timeout) {
  return takeNext(audio_, timeout);
}

void IntercomClient::collect(std::chrono::milliseconds window) {
  const auto deadline = Clock::now() + window;
  for (;;) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) {
      return;
    }
    auto datagram = receive(left);
    if (!datagram) {
      return;
    }
    keep(std::move(*datagram));
  }
}

std::optional<nlohmann::json> IntercomClient::hi(std::chrono::milliseconds timeout) {
  send(wire::Incoming::of(wire::MessageType::hi));
  return nextControl(timeout);
}

std::optional<nlohmann::json> IntercomClient::join(const std::optional<std::string>& name,
                                                   const std::string& role, wire::Features features,
                                                   std::chrono::milliseconds timeout) {
  send(wire::Incoming::join(name, role, features));
  return nextControl(timeout);
}

}  // namespace parlavox::client
