#pragma once

#include <cstddef>
#include <cstdint>

// The intercom's wire format, shared by the relay and the announcements.
namespace parlavox::protocol {

inline constexpr std::uint16_t intercomPort = 50505;

// First byte of every datagram on the intercom port, both ways.
inline constexpr std::uint8_t kindControl = 0x01;
inline constexpr std::uint8_t kindAudio = 0x02;

// Audio datagram header: kind, senderID (u16), mask (u32), seq (u16), little-endian.
inline constexpr std::size_t senderIdOffset = 1;
inline constexpr std::size_t maskOffset = 3;
inline constexpr std::size_t seqOffset = 7;
inline constexpr std::size_t audioHeaderSize = 9;

// The sender id of announcements; never handed to a client.
inline constexpr std::uint16_t announcerID = 0xFFFF;

}  // namespace parlavox::protocol
