// The generator's bookkeeping against the bare forwarder on loopback: every copy of a datagram
// sent in the window is counted once, and nothing from the warm-up or another run leaks in.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <set>
#include <thread>

#include "BareForwarder.h"
#include "LoadGenerator.h"

namespace parlavox::bench {
namespace {

using namespace std::chrono_literals;

TEST(LoadGenerator, CountsEachCopyOfTheWindowOnce) {
  BareForwarder forwarder(0);
  std::atomic<bool> done{false};
  std::thread serving([&] {
    while (!done) {
      forwarder.serveBatch(20);
    }
  });
  LoadGenerator generator(5);
  ASSERT_TRUE(generator.join(forwarder.port(), "Crew", 5s));

  RunPlan plan;
  plan.targetPort = forwarder.port();
  plan.talkers = 2;
  plan.ratePerTalker = 200;
  plan.warmup = 100ms;
  plan.measure = 300ms;
  plan.tail = 200ms;
  std::size_t started = 0;
  plan.atStart = [&] { ++started; };
  const RunResult first = generator.run(plan);
  const RunResult second = generator.run(plan);
  done = true;
  serving.join();

  EXPECT_EQ(started, 2U);
  for (const RunResult* run : {&first, &second}) {
    EXPECT_GT(run->sent, 0U);
    EXPECT_EQ(run->expected, run->sent * 4) << "each datagram has four other listeners";
    EXPECT_LE(run->received, run->expected) << "warm-up copies or a previous run's leaked in";
    EXPECT_GE(static_cast<double>(run->received), 0.9 * static_cast<double>(run->expected));
    EXPECT_EQ(run->latency.count(), run->received);
    EXPECT_EQ(run->misdelivered, 0U);
    EXPECT_NEAR(run->seconds, 0.3, 1e-9);
  }
}

TEST(LoadGenerator, StopWhenEndsTheWindowEarly) {
  BareForwarder forwarder(0);
  LoadGenerator generator(2);
  RunPlan plan;
  plan.targetPort = forwarder.port();
  plan.talkers = 0;
  plan.warmup = 0ms;
  plan.measure = 60s;
  plan.tail = 0ms;
  int polls = 0;
  plan.stopWhen = [&] { return ++polls == 3; };
  const RunResult run = generator.run(plan);
  EXPECT_EQ(polls, 3);
  EXPECT_LT(run.seconds, 60.0);
  EXPECT_EQ(run.sent, 0U);
}

TEST(LoadGenerator, ShortRunsStillKeepEveryClientAlive) {
  // A stand-in server that only collects the pings, by sender.
  const int server = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof local;
  ASSERT_EQ(::bind(server, reinterpret_cast<const sockaddr*>(&local), sizeof local), 0);
  ASSERT_EQ(::getsockname(server, reinterpret_cast<sockaddr*>(&local), &length), 0);

  BareForwarder forwarder(0);
  LoadGenerator generator(4);
  RunPlan plan;
  plan.targetPort = forwarder.port();
  plan.warmup = 0ms;
  plan.measure = 150ms;  // far shorter than one round of pings (2 s over 4 clients)
  plan.tail = 0ms;
  plan.pingPort = ntohs(local.sin_port);
  for (int run = 0; run < 16; ++run) {
    generator.run(plan);
  }

  std::set<std::uint16_t> pinged;
  pollfd ready{server, POLLIN, 0};
  while (::poll(&ready, 1, 0) == 1) {
    std::uint8_t buffer[64];
    sockaddr_in from{};
    socklen_t fromLength = sizeof from;
    if (::recvfrom(server, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr*>(&from),
                   &fromLength) > 0 &&
        buffer[0] == 0x01) {
      pinged.insert(ntohs(from.sin_port));
    }
  }
  ::close(server);
  for (std::size_t i = 0; i < generator.clients(); ++i) {
    EXPECT_TRUE(pinged.count(generator.port(i)) == 1) << "client " << i << " was never pinged";
  }
}

}  // namespace
}  // namespace parlavox::bench
