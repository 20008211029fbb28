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
// What the station needs to know of the show beyond the intercom's own messages: its name.
inline constexpr std::string_view kStationInfo = "/station.json";
// Where the station posts the crew PIN, when the show has one, for its session cookie.
inline constexpr std::string_view kCrewPin = "/pin";
// The show's log of the day, for the operator to download; the monitor page links to them.
inline constexpr std::string_view kLogCsv = "/operator/log.csv";
inline constexpr std::string_view kLogJson = "/operator/log.json";
// Where a device learns to trust the server's own certificate authority, and downloads it; served
// over plain HTTP too, since a device that does not trust the server yet is warned off HTTPS.
inline constexpr std::string_view kTrustPage = "/trust";
inline constexpr std::string_view kAuthorityCertificate = "/trust/parlavox-ca.crt";

// What the operator does, from the monitor page or show control: each a POST of a JSON object.
inline constexpr std::string_view kOperatorAnnounce = "/operator/announce";
inline constexpr std::string_view kOperatorStop = "/operator/stop";
inline constexpr std::string_view kOperatorCall = "/operator/call";
inline constexpr std::string_view kOperatorRemove = "/operator/remove";

}  // namespace parlavox::web
