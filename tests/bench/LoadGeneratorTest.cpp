// The generator's bookkeeping against the bare forwarder on loopback. The quick run fails only
// when nothing is delivered or a talker hears itself; a copy counted twice, one missing from a
// fan-out, a warm-up that leaks into the window or a client never pinged would only skew its table.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <set>
#include <stop_token>
#include <thread>

#include "BareForwarder.h"
#include "LoadGenerator.h"
#include "Wire.h"

namespace parlavox::bench {
namespace {

using namespace std::chrono_literals;

// Everyone talks, so that each sender's fan-out starts at a different place in the forwarder's
// ring; the runs are far shorter than a round of pings (2 s over 4 clients).
TEST(LoadGenerator, CountsEachCopyOnceAndKeepsEveryClientAliveOverShortRuns) {
  const int pings = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof local;
  ASSERT_EQ(::bind(pings, reinterpret_cast<const sockaddr*>(&local), sizeof local), 0);
  ASSERT_EQ(::getsockname(pings, reinterpret_cast<sockaddr*>(&local), &length), 0);

  BareForwarder forwarder(0);
  std::jthread serving([&](const std::stop_token& stop) {
    while (!stop.stop_requested()) {
      forwarder.serveBatch(20);
    }
  });
  LoadGenerator generator(4);
  ASSERT_TRUE(generator.join(forwarder.port(), "Crew", 5s));
  generator.sendFrom(0, forwarder.port(), control(R"({"t":"join"})"));  // joined twice: once

  RunPlan plan;
  plan.targetPort = forwarder.port();
  plan.talkers = 4;
  plan.ratePerTalker = 100;
  plan.warmup = 100ms;
  plan.measure = 300ms;
  plan.tail = 200ms;
  plan.pingPort = ntohs(local.sin_port);
  std::vector<RunResult> runs(3);
  for (RunResult& run : runs) {
    run = generator.run(plan);
  }
  serving.request_stop();
  serving.join();

  EXPECT_EQ(forwarder.endpoints(), 4U);
  for (const RunResult& run : runs) {
    EXPECT_GT(run.sent, 0U);
    EXPECT_EQ(run.expected, run.sent * 3) << "each datagram has three other listeners";
    EXPECT_LE(run.received, run.expected) << "a copy counted twice, or one from outside the window";
    EXPECT_GE(static_cast<double>(run.received), 0.9 * static_cast<double>(run.expected));
    EXPECT_EQ(run.latency.count(), run.received);
    EXPECT_EQ(run.misdelivered, 0U);
    EXPECT_NEAR(run.seconds, 0.3, 1e-9);
  }

  std::set<std::uint16_t> pinged;
  pollfd ready{pings, POLLIN, 0};
  while (::poll(&ready, 1, 0) == 1) {
    std::uint8_t buffer[64];
    sockaddr_in from{};
    socklen_t fromLength = sizeof from;
    if (::recvfrom(pings, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr*>(&from),
                   &fromLength) > 0 &&
        buffer[0] == 0x01) {
      pinged.insert(ntohs(from.sin_port));
    }
  }
  ::close(pings);
  for (std::size_t i = 0; i < generator.clients(); ++i) {
    EXPECT_EQ(pinged.count(generator.port(i)), 1U) << "client " << i << " was never pinged";
  }
}

TEST(LoadGenerator, StopWhenEndsTheWindowEarly) {
  LoadGenerator generator(2);
  RunPlan plan;
  plan.warmup = 0ms;
  plan.measure = 60s;
  plan.tail = 0ms;
  int polls = 0;
  plan.stopWhen = [&] { return ++polls == 3; };
  const RunResult run = generator.run(plan);
  EXPECT_EQ(polls, 3);
  EXPECT_LT(run.seconds, 60.0);
}

}  // namespace
}  // namespace parlavox::bench
