#include <gtest/gtest.h>

#include "client/RosterTracker.h"

namespace parlavox::client {
namespace {

using json = nlohmann::json;
using Lines = std::vector<std::string>;

json roster(const std::string& users) {
  return json::parse(R"({"t":"roster","users":)" + users + "}");
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

TEST(RosterTracker, IgnoresWhatIsNotARosterWithoutLosingTrack) {
  RosterTracker tracker(9);
  EXPECT_EQ(tracker.update(roster("[]")), Lines{"👥 On the intercom: nobody"});
  for (const char* text : {R"({"t":"pong"})", R"({"t":"roster"})", R"({"t":"roster","users":{}})",
                           R"({"t":"roster","users":[{"id":"1","name":"A","role":"R"}]})",
                           R"({"t":"roster","users":[{"id":70000,"name":"A","role":"R"}]})",
                           R"({"t":"roster","users":[{"id":-1,"name":"A","role":"R"}]})",
                           R"({"t":"roster","users":[{"id":1,"role":"R"}]})"}) {
    EXPECT_EQ(tracker.update(json::parse(text)), Lines{}) << text;
  }
  EXPECT_EQ(tracker.update(roster(R"([{"id":4,"name":"Cy","role":"Sound"}])")),
            Lines{"🎧 Cy joined as Sound"});
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
