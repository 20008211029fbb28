#include <gtest/gtest.h>

#include "client/Pacer.h"

namespace parlavox::client {
namespace {

using namespace std::chrono_literals;
using platform::MonoTime;

constexpr MonoTime kStart{std::chrono::hours(1000)};

TEST(Pacer, KeepsToItsGridHoweverLateEachCallComes) {
  Pacer pacer(kStart, 20ms, 200ms);
  // The time spent sending never pushes the schedule back.
  MonoTime now = kStart;
  for (int n = 0; n < 500; ++n) {
    const MonoTime due = pacer.next(now);
    EXPECT_EQ(due, kStart + n * 20ms) << n;
    // Most sends take 8 ms; every tenth takes 30 ms, making the next frame 10 ms late.
    now = std::max(now, due) + (n % 10 == 0 ? 30ms : 8ms);
  }
  EXPECT_EQ(pacer.restarts(), 0U);
  EXPECT_EQ(pacer.framesScheduled(), 500U);
}

TEST(Pacer, CatchesUpWithinTheAllowedLagWithoutWaiting) {
  Pacer pacer(kStart, 20ms, 200ms);
  pacer.next(kStart);
  // 200 ms late for frame 1 (due at 20 ms): the lag allowed, so the missed frames go out at once.
  const MonoTime late = kStart + 220ms;
  for (int n = 1; n <= 11; ++n) {
    EXPECT_EQ(pacer.next(late), kStart + n * 20ms) << n;
  }
  EXPECT_EQ(pacer.next(late), kStart + 240ms) << "back on schedule: frame 12 waits";
  EXPECT_EQ(pacer.restarts(), 0U);
}

TEST(Pacer, StartsAfreshRatherThanBurstAfterAStall) {
  Pacer pacer(kStart, 20ms, 200ms);
  pacer.next(kStart);
  pacer.next(kStart + 20ms);
  // The process was stopped for 3 s.
  const MonoTime woke = kStart + 3s;
  EXPECT_EQ(pacer.next(woke), woke);
  EXPECT_EQ(pacer.next(woke), woke + 20ms);
  EXPECT_EQ(pacer.next(woke + 20ms), woke + 40ms);
  EXPECT_EQ(pacer.restarts(), 1U);
  EXPECT_EQ(pacer.framesScheduled(), 5U);
}

}  // namespace
}  // namespace parlavox::client
