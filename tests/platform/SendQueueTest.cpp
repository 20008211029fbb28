// A WebSocket's send queue under its policy, on made-up time: what is shed when the connection
// falls behind, and when a write counts as stuck.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/SendQueue.h"

namespace parlavox::platform {
namespace {

using std::chrono::milliseconds;

// Messages are one letter: 'a' audio (droppable), 'c' control, 't' a feed's text.
SendPolicy crew() {
  SendPolicy policy;
  policy.droppable = [](Bytes message) { return message[0] == 'a'; };
  return policy;
}

SendPolicy feed() {
  SendPolicy policy;
  policy.newestOnly = true;
  return policy;
}

// One step: at `ms`, push `message`, or with '>' start the next write, or with '.' finish it.
struct Step {
  int ms;
  std::string message;
};

// What is written, in order, once every step has run and the queue is drained.
std::string written(const SendPolicy& policy, const std::vector<Step>& steps) {
  const MonoTime start;
  SendQueue queue(policy);
  std::string out;
  const auto write = [&](MonoTime now) {
    if (const auto* bytes = queue.next(now)) {
      out += std::string(bytes->begin(), bytes->end()) + " ";
    }
  };
  for (const auto& [ms, message] : steps) {
    const MonoTime now = start + milliseconds(ms);
    if (message == ">") {
      write(now);
    } else if (message == ".") {
      queue.written();
    } else {
      queue.push(asBytes(message), {}, now);
    }
  }
  queue.written();  // a write still under way ends
  while (queue.size() > 0) {
    write(start + milliseconds(1000));
    queue.written();
  }
  return out;
}

TEST(SendQueue, ShedsWhatThePolicySaysAndNothingElse) {
  struct Case {
    const char* label;
    SendPolicy policy;
    std::vector<Step> steps;
    std::string written;
  };
  const Case cases[] = {
      {"audio kept up with", crew(), {{0, "a1"}, {0, ">"}, {20, "."}, {20, "a2"}}, "a1 a2 "},
      {"audio older than 200 ms goes when newer audio comes",
       crew(),
       {{0, "a1"}, {100, "a2"}, {250, "a3"}},
       "a2 a3 "},
      {"exactly 200 ms is not older", crew(), {{0, "a1"}, {200, "a2"}}, "a1 a2 "},
      {"what is being written stays", crew(), {{0, "a1"}, {0, ">"}, {500, "a2"}}, "a1 a2 "},
      {"control messages always go",
       crew(),
       {{0, "c1"}, {0, "a1"}, {10, "c2"}, {500, "a2"}},
       "c1 c2 a2 "},
      {"stale audio waits for newer audio to go", crew(), {{0, "a1"}, {900, "c1"}}, "a1 c1 "},
      {"a feed keeps only its newest text behind the one being written",
       feed(),
       {{0, "t1"}, {0, ">"}, {10, "t2"}, {20, "t3"}},
       "t1 t3 "},
      {"a feed with nothing being written keeps the newest", feed(), {{0, "t1"}, {5, "t2"}}, "t2 "},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(written(c.policy, c.steps), c.written) << c.label;
  }
}

TEST(SendQueue, AWriteIsStuckOnceItHasTakenTheWholeAllowance) {
  const MonoTime start;
  SendQueue queue(crew());
  queue.push(asBytes("c1"), {}, start);
  EXPECT_FALSE(queue.stuck(start + milliseconds(5000))) << "nothing is being written";
  ASSERT_NE(queue.next(start), nullptr);
  EXPECT_EQ(queue.next(start), nullptr) << "one write at a time";
  EXPECT_FALSE(queue.stuck(start + milliseconds(1999)));
  EXPECT_TRUE(queue.stuck(start + milliseconds(2000)));
  queue.written();
  EXPECT_FALSE(queue.stuck(start + milliseconds(9000)));
}

}  // namespace
}  // namespace parlavox::platform
