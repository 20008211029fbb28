#include <gtest/gtest.h>

#include "client/RosterTracker.h"

namespace parlavox::client {
namespace {

using Lines = std::vector<std::string>;

wire::RosterMsg roster(const std::string& users) {
  const std::string text = R"({"t":"roster","users":)" + users + "}";
  return std::get<wire::RosterMsg>(*wire::decodeServerMessage(asBytes(text)));
}

TEST(RosterTracker, ListsEveryoneFirstThenOnlyWhatChanged) {
  RosterTracker tracker(2);
  EXPECT_EQ(tracker.update(roster(R"([{"id":1,"name":"Ann","role":"Sound"},
                                     {"id":2,"name":"Me","role":"Lighting"}])")),
            Lines{"👥 On the intercom: Ann (Sound); Me (Lighting), you"});
  // Bo joins.
  EXPECT_EQ(tracker.update(roster(R"([{"id":1,"name":"Ann","role":"Sound"},
                                     {"id":2,"name":"Me","role":"Lighting"},
                                     {"id":3,"name":"Bo","role":"Sound"}])")),
            Lines{"🎧 Bo joined as Sound"});
  // Nothing changed: a roster resent after our own rejoin says nothing.
  EXPECT_EQ(tracker.update(roster(R"([{"id":1,"name":"Ann","role":"Sound"},
                                     {"id":2,"name":"Me","role":"Lighting"},
                                     {"id":3,"name":"Bo","role":"Sound"}])")),
            Lines{});
  // Ann joins again with another role, we do too (not reported), Bo leaves.
  EXPECT_EQ(tracker.update(roster(R"([{"id":1,"name":"Ann","role":"Director"},
                                     {"id":2,"name":"Me","role":"Sound"}])")),
            (Lines{"🎧 Ann joined as Director", "👋 Bo (Sound) left"}));
}

TEST(RosterTracker, FollowsANewIdOfOurOwnAfterARejoin) {
  RosterTracker tracker(1);
  tracker.update(roster(R"([{"id":1,"name":"Me","role":"Sound"}])"));
  // The server restarted: we are 5 now, and our old entry is gone without a word.
  tracker.setSelf(5);
  EXPECT_EQ(tracker.update(roster(R"([{"id":5,"name":"Me","role":"Sound"}])")), Lines{});
  // Setting the same id again forgets nothing.
  tracker.setSelf(5);
  EXPECT_EQ(tracker.update(roster(
                R"([{"id":5,"name":"Me","role":"Sound"},{"id":6,"name":"Ann","role":"Sound"}])")),
            Lines{"🎧 Ann joined as Sound"});
}

}  // namespace
}  // namespace parlavox::client
