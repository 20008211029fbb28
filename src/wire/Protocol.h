#pragma once

#include <cstddef>
#include <cstdint>

// The intercom's fixed numbers, shared by the server, the client, the bench and the fuzz targets.
namespace parlavox::wire {

inline constexpr std::uint16_t intercomPort = 50505;
// How the server is advertised by DNS-SD; the instance name is the show's.
inline constexpr const char* serviceType = "_intercom._udp";

// The first byte of every datagram on the intercom port, both ways.
inline constexpr std::uint8_t kindControl = 0x01;
inline constexpr std::uint8_t kindAudio = 0x02;

// The sender id of announcements; never handed to a client.
inline constexpr std::uint16_t announcerID = 0xFFFF;

// The largest payload a UDP datagram over IPv4 can carry.
inline constexpr std::size_t maxDatagram = 65507;

}  // namespace parlavox::wire
