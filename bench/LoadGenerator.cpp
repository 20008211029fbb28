#include "LoadGenerator.h"

#include <arpa/inet.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <string_view>
#include <system_error>

#include "UdpDrops.h"
#include "Wire.h"
#include "wire/Protocol.h"

namespace parlavox::bench {
namespace {

constexpr int kClientBuffer = 4 << 20;  // so that losses are the target's, not the generator's

sockaddr_in loopback(std::uint16_t port, std::uint32_t host = INADDR_LOOPBACK) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(host);
  return address;
}

// Client i's own loopback address, 127.1.x.y: real crew devices each have an address, and the
// server limits configs and joins per address.
std::uint32_t clientHost(std::size_t i) {
  return (127U << 24) | (1U << 16) | static_cast<std::uint32_t>((i / 250) << 8) |
         static_cast<std::uint32_t>(i % 250 + 1);
}

// Client i's port, 20000 + i: its own, whatever its address, because the bare forwarder and the
// drop counts tell clients apart by port alone (ephemeral ports repeat across addresses, and did:
// two clients sharing one made joins at 200 clients and more fail at random).
std::uint16_t clientPort(std::size_t i) {
  return static_cast<std::uint16_t>(20000 + i);
}

std::chrono::nanoseconds threadCpu() {
  timespec now{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

std::uint64_t dropsAt(const std::map<std::uint16_t, std::uint64_t>& drops, std::uint16_t port) {
  const auto found = drops.find(port);
  return found == drops.end() ? 0 : found->second;
}

}  // namespace

std::int64_t realtimeNs() {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<std::int64_t>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

void RunResult::merge(const RunResult& other) {
  seconds += other.seconds;
  wallSeconds += other.wallSeconds;
  sent += other.sent;
  sendFailures += other.sendFailures;
  expected += other.expected;
  received += other.received;
  misdelivered += other.misdelivered;
  latency.merge(other.latency);
  sendLateness.merge(other.sendLateness);
  announcement.insert(announcement.end(), other.announcement.begin(), other.announcement.end());
  targetDrops += other.targetDrops;
  generatorDrops += other.generatorDrops;
  generatorCpu += other.generatorCpu;
}

double RunResult::offeredPerSecond() const {
  return seconds > 0 ? static_cast<double>(expected) / seconds : 0;
}

double RunResult::deliveredPerSecond() const {
  return seconds > 0 ? static_cast<double>(received) / seconds : 0;
}

double RunResult::loss() const {
  return expected > 0 ? 1.0 - static_cast<double>(received) / static_cast<double>(expected) : 0;
}

LoadGenerator::LoadGenerator(std::size_t clients)
    : buffers_(kBatch * kSlot), controls_(kBatch * kControlSpace) {
  epoll_ = ::epoll_create1(EPOLL_CLOEXEC);
  if (epoll_ < 0) {
    throw std::system_error(errno, std::system_category(), "epoll_create1");
  }
  for (std::size_t i = 0; i < clients; ++i) {
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
      throw std::system_error(errno, std::system_category(), "socket");
    }
    fds_.push_back(fd);
    const int size = kClientBuffer;
    if (::setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) != 0) {
      (void)::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    }
    const int on = 1;
    (void)::setsockopt(fd, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on);
    sockaddr_in local = loopback(clientPort(i), clientHost(i));
    socklen_t length = sizeof local;
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&local), &length) != 0) {
      throw std::system_error(errno, std::system_category(), "bind");
    }
    ports_.push_back(ntohs(local.sin_port));
    epoll_event interest{};
    interest.events = EPOLLIN;
    interest.data.u64 = i;
    if (::epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &interest) != 0) {
      throw std::system_error(errno, std::system_category(), "epoll_ctl");
    }
  }
  for (std::size_t i = 0; i < kBatch; ++i) {
    iovecs_[i] = {buffers_.data() + i * kSlot, kSlot};
  }
}

LoadGenerator::~LoadGenerator() {
  for (const int fd : fds_) {
    ::close(fd);
  }
  ::close(epoll_);
}

template <typename OnDatagram>
std::size_t LoadGenerator::receiveBatch(std::size_t index, OnDatagram&& onDatagram) {
  for (std::size_t i = 0; i < kBatch; ++i) {
    msghdr& header = messages_[i].msg_hdr;
    header = msghdr{};
    header.msg_name = &sources_[i];
    header.msg_namelen = sizeof(sockaddr_in);
    header.msg_iov = &iovecs_[i];
    header.msg_iovlen = 1;
    header.msg_control = controls_.data() + i * kControlSpace;
    header.msg_controllen = kControlSpace;
  }
  const int count = ::recvmmsg(fds_[index], messages_.data(), kBatch, MSG_DONTWAIT, nullptr);
  if (count <= 0) {
    return 0;
  }
  std::int64_t fallback = 0;
  for (std::size_t i = 0; i < static_cast<std::size_t>(count); ++i) {
    msghdr& header = messages_[i].msg_hdr;
    std::int64_t arrival = 0;
    for (cmsghdr* c = CMSG_FIRSTHDR(&header); c != nullptr; c = CMSG_NXTHDR(&header, c)) {
      if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_TIMESTAMPNS) {
        timespec stamp{};
        std::memcpy(&stamp, CMSG_DATA(c), sizeof stamp);
        arrival = static_cast<std::int64_t>(stamp.tv_sec) * 1'000'000'000 + stamp.tv_nsec;
      }
    }
    if (arrival == 0) {
      fallback = fallback != 0 ? fallback : realtimeNs();
      arrival = fallback;
    }
    onDatagram(buffers_.data() + i * kSlot, static_cast<std::size_t>(messages_[i].msg_len), arrival,
               ntohs(sources_[i].sin_port));
  }
  return static_cast<std::size_t>(count);
}

void LoadGenerator::sendFrom(std::size_t from, std::uint16_t port,
                             const std::vector<std::uint8_t>& datagram) {
  const sockaddr_in to = loopback(port);
  (void)::sendto(fds_[from], datagram.data(), datagram.size(), MSG_DONTWAIT,
                 reinterpret_cast<const sockaddr*>(&to), sizeof to);
}

void LoadGenerator::drain() {
  for (std::size_t i = 0; i < fds_.size(); ++i) {
    while (receiveBatch(i, [](const std::uint8_t*, std::size_t, std::int64_t, std::uint16_t) {}) >
           0) {
    }
  }
}

bool LoadGenerator::join(std::uint16_t port, const std::string& role,
                         std::chrono::milliseconds timeout) {
  constexpr std::size_t kInFlight = 16;  // the server's input queue is short
  constexpr std::int64_t kRetryNs = 1'000'000'000;
  std::vector<bool> welcomed(fds_.size(), false);
  std::vector<std::int64_t> askedAt(fds_.size(), 0);
  std::size_t missing = fds_.size();
  std::size_t waiting = 0;  // asked, not yet answered, not yet given up on
  const std::int64_t deadline = realtimeNs() + std::chrono::nanoseconds(timeout).count();
  std::vector<epoll_event> events(fds_.size());
  drain();
  while (missing > 0 && realtimeNs() < deadline) {
    const std::int64_t now = realtimeNs();
    for (std::size_t i = 0; i < fds_.size(); ++i) {
      if (welcomed[i]) {
        continue;
      }
      const bool lost = askedAt[i] != 0 && now - askedAt[i] > kRetryNs;
      if (lost) {
        --waiting;
        askedAt[i] = 0;
      }
      if (askedAt[i] == 0 && waiting < kInFlight) {
        sendFrom(i, port, control(wire::Incoming::join("crew-" + std::to_string(i), role)));
        askedAt[i] = now;
        ++waiting;
      }
    }
    const int ready = ::epoll_wait(epoll_, events.data(), static_cast<int>(events.size()), 20);
    for (int e = 0; e < ready; ++e) {
      const auto i = static_cast<std::size_t>(events[static_cast<std::size_t>(e)].data.u64);
      receiveBatch(
          i, [&](const std::uint8_t* data, std::size_t length, std::int64_t, std::uint16_t from) {
            if (!welcomed[i] && askedAt[i] != 0 && from == port && isWelcome({data, length})) {
              welcomed[i] = true;
              --missing;
              --waiting;
            }
          });
    }
  }
  return missing == 0;
}

void LoadGenerator::leave(std::uint16_t port) {
  for (std::size_t i = 0; i < fds_.size(); ++i) {
    sendFrom(i, port, control(wire::Incoming::of(wire::MessageType::bye)));
  }
}

RunResult LoadGenerator::run(const RunPlan& plan) {
  RunResult result;
  const std::uint32_t runId = nextRun_++;
  const std::size_t clients = fds_.size();
  const std::size_t talkers = std::min(plan.talkers, clients);
  const sockaddr_in target = loopback(plan.targetPort);
  const sockaddr_in pingTarget = loopback(plan.pingPort);
  const std::vector<std::uint8_t> ping = control(wire::Incoming::of(wire::MessageType::ping));

  std::vector<std::vector<std::uint8_t>> outgoing(talkers,
                                                  std::vector<std::uint8_t>(kDatagramSize));
  for (std::size_t t = 0; t < talkers; ++t) {
    writeAudio(outgoing[t], kMainChannel, Probe{runId, static_cast<std::uint16_t>(t), 0, 0});
  }
  std::vector<std::uint32_t> seq(talkers, 0);
  result.announcement.reserve(4096);

  const auto dropsBefore = udpDropsByPort();
  const auto cpuBefore = threadCpu();

  const double totalRate = static_cast<double>(talkers) * plan.ratePerTalker;
  const double interval = totalRate > 0 ? 1e9 / totalRate : 0;
  const std::int64_t start = realtimeNs() + 1'000'000;
  std::int64_t windowStart = start + std::chrono::nanoseconds(plan.warmup).count();
  std::int64_t windowEnd = windowStart + std::chrono::nanoseconds(plan.measure).count();
  std::int64_t runEnd = windowEnd + std::chrono::nanoseconds(plan.tail).count();
  const std::int64_t pingStep = std::chrono::nanoseconds(wire::kKeepaliveInterval).count() /
                                static_cast<std::int64_t>(clients);
  // After a pause between runs, go on from where the round stopped, without a burst.
  nextPingNs_ = std::max(nextPingNs_, start - pingStep);
  std::int64_t nextStopCheck = windowStart;
  std::uint64_t event = 0;
  bool started = false;

  auto onDatagram = [&](std::size_t index) {
    return [&, index](const std::uint8_t* data, std::size_t length, std::int64_t arrival,
                      std::uint16_t) {
      const std::span<const std::uint8_t> datagram(data, length);
      if (const auto probe = readProbe(datagram); probe && probe->run == runId) {
        if (probe->intendedNs >= windowStart && probe->intendedNs < windowEnd) {
          ++result.received;
          result.latency.record(arrival - probe->sentNs);
          if (probe->talker == index) {
            ++result.misdelivered;
          }
        }
        return;
      }
      if (index == plan.listener) {
        if (const auto header = wire::AudioHeader::read(datagram);
            header && header->senderID == wire::announcerID) {
          result.announcement.push_back(Frame{arrival, header->seq});
        }
      }
    };
  };

  std::vector<epoll_event> events(clients);
  for (;;) {
    std::int64_t now = realtimeNs();
    if (!started && now >= start) {
      started = true;
      if (plan.atStart) {
        plan.atStart();
      }
      now = realtimeNs();
    }
    // Open loop: everything whose time has come goes now, late or not, whatever the target does.
    // The run window goes by the intended time; latency counts from the actual send, so the
    // generator's own delay (sendLateness) is not charged to the target.
    while (interval > 0) {
      const auto intended =
          start + static_cast<std::int64_t>(static_cast<double>(event) * interval);
      if (intended > now || intended >= windowEnd) {
        break;
      }
      const std::size_t t = event % talkers;
      const std::int64_t leaving = realtimeNs();
      restamp(outgoing[t], seq[t]++, intended, leaving);
      const ssize_t sent = ::sendto(fds_[t], outgoing[t].data(), kDatagramSize, MSG_DONTWAIT,
                                    reinterpret_cast<const sockaddr*>(&target), sizeof target);
      if (sent < 0) {
        ++result.sendFailures;
      } else if (intended >= windowStart) {
        ++result.sent;
        result.sendLateness.record(leaving - intended);
      }
      ++event;
    }
    while (plan.pingPort != 0 && nextPingNs_ <= now) {
      (void)::sendto(fds_[pingCursor_], ping.data(), ping.size(), MSG_DONTWAIT,
                     reinterpret_cast<const sockaddr*>(&pingTarget), sizeof pingTarget);
      pingCursor_ = (pingCursor_ + 1) % clients;
      nextPingNs_ += pingStep;
    }
    if (plan.stopWhen && now >= nextStopCheck && now < windowEnd) {
      nextStopCheck = now + 10'000'000;
      if (plan.stopWhen()) {
        windowEnd = std::max(now, windowStart);
        runEnd = now + std::chrono::nanoseconds(plan.tail).count();
      }
    }
    if (now >= runEnd) {
      break;
    }
    std::int64_t wake = std::min({runEnd, plan.pingPort != 0 ? nextPingNs_ : runEnd,
                                  plan.stopWhen && now < windowEnd ? nextStopCheck : runEnd});
    if (!started) {
      wake = std::min(wake, start);
    }
    if (interval > 0) {
      const auto intended =
          start + static_cast<std::int64_t>(static_cast<double>(event) * interval);
      if (intended < windowEnd) {
        wake = std::min(wake, intended);
      }
    }
    const std::int64_t wait = std::max<std::int64_t>(0, wake - now);
    const timespec timeout{static_cast<time_t>(wait / 1'000'000'000),
                           static_cast<long>(wait % 1'000'000'000)};
    const int ready =
        ::epoll_pwait2(epoll_, events.data(), static_cast<int>(events.size()), &timeout, nullptr);
    for (int e = 0; e < ready; ++e) {
      const auto index = static_cast<std::size_t>(events[static_cast<std::size_t>(e)].data.u64);
      receiveBatch(index, onDatagram(index));
    }
  }
  // Whatever is still queued in the clients' sockets arrived in time; count it too.
  for (std::size_t i = 0; i < clients; ++i) {
    while (receiveBatch(i, onDatagram(i)) > 0) {
    }
  }

  result.generatorCpu = threadCpu() - cpuBefore;
  const auto dropsAfter = udpDropsByPort();
  result.targetDrops = dropsAt(dropsAfter, plan.targetPort) - dropsAt(dropsBefore, plan.targetPort);
  for (const std::uint16_t port : ports_) {
    result.generatorDrops += dropsAt(dropsAfter, port) - dropsAt(dropsBefore, port);
  }
  result.run = runId;
  result.windowStartNs = windowStart;
  result.windowEndNs = windowEnd;
  result.seconds = static_cast<double>(windowEnd - windowStart) / 1e9;
  result.wallSeconds = static_cast<double>(realtimeNs() - start) / 1e9;
  result.expected = result.sent * (clients - 1);
  return result;
}

}  // namespace parlavox::bench
