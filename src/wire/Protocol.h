#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

// The intercom's fixed numbers, shared by the server, the client, the bench and the fuzz targets.
namespace parlavox::wire {

inline constexpr std::uint16_t kIntercomPort = 50505;
// How the server is advertised by DNS-SD; the instance name is the show's.
inline constexpr const char* kServiceType = "_intercom._udp";

// The first byte of every datagram on the intercom port, both ways.
inline constexpr std::uint8_t kControlKind = 0x01;
inline constexpr std::uint8_t kAudioKind = 0x02;

// The sender id of announcements; never handed to a client.
inline constexpr std::uint16_t announcerID = 0xFFFF;

// A client says something at least this often ("ping" when it has nothing else to say); the
// server forgets one it has not heard from for longer than kSilenceLimit.
inline constexpr std::chrono::seconds kKeepaliveInterval{2};
inline constexpr std::chrono::seconds kSilenceLimit{8};

// A crew member's name is cut to this many user-perceived characters.
inline constexpr std::size_t kNameLimit = 24;

// The largest payload a UDP datagram over IPv4 can carry.
inline constexpr std::size_t kMaxDatagram = 65507;

}  // namespace parlavox::wire
