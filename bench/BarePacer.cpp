#include "BarePacer.h"

#include <arpa/inet.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <system_error>
#include <vector>

#include "Wire.h"
#include "wire/Protocol.h"

namespace parlavox::bench {
namespace {

constexpr long kFrameNs = 20'000'000;
constexpr unsigned long kAnnouncerSlackNs = 50'000;  // as the server's announcer thread

timespec plus(timespec at, long long ns) {
  const long long total = static_cast<long long>(at.tv_nsec) + ns;
  at.tv_sec += static_cast<time_t>(total / 1'000'000'000);
  at.tv_nsec = static_cast<long>(total % 1'000'000'000);
  return at;
}

}  // namespace

void runBarePacer(std::uint16_t port, std::size_t frames) {
  (void)::prctl(PR_SET_TIMERSLACK, kAnnouncerSlackNs, 0UL, 0UL, 0UL);
  const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_port = htons(port);
  local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (fd < 0 || ::bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) {
    throw std::system_error(errno, std::system_category(), "bind");
  }
  std::printf("ready\n");
  std::fflush(stdout);
  std::vector<std::uint8_t> frame(kDatagramSize, 0);
  for (;;) {
    sockaddr_in listener{};
    socklen_t length = sizeof listener;
    std::uint8_t trigger[64];
    if (::recvfrom(fd, trigger, sizeof trigger, 0, reinterpret_cast<sockaddr*>(&listener),
                   &length) < 0) {
      continue;
    }
    timespec start{};
    ::clock_gettime(CLOCK_MONOTONIC, &start);
    for (std::size_t i = 0; i < frames; ++i) {
      const auto header =
          wire::AudioHeader{wire::announcerID, 0x1, static_cast<std::uint16_t>(i + 1)}.bytes();
      std::copy(header.begin(), header.end(), frame.begin());
      (void)::sendto(fd, frame.data(), frame.size(), MSG_DONTWAIT,
                     reinterpret_cast<const sockaddr*>(&listener), sizeof listener);
      const timespec deadline = plus(start, static_cast<long long>(i + 1) * kFrameNs);
      while (::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr) == EINTR) {
      }
    }
    std::printf("done\n");
    std::fflush(stdout);
  }
}

}  // namespace parlavox::bench
