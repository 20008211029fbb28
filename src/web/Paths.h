#pragma once

#include <string_view>

// The paths of the web port that the pages themselves ask for; the route table maps them, and
// the pages' constants carry them.
namespace parlavox::web {

inline constexpr std::string_view kStationPage = "/";
inline constexpr std::string_view kMonitorPage = "/monitor";
inline constexpr std::string_view kIntercomSocket = "/intercom";
inline constexpr std::string_view kMonitorFeed = "/monitor/events";
inline constexpr std::string_view kMetrics = "/metrics";

}  // namespace parlavox::web
