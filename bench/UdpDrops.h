#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace parlavox::bench {

// Datagrams the kernel dropped at each UDP socket of this network namespace because its receive
// queue was full, summed by local port, from /proc/net/udp and /proc/net/udp6.
std::map<std::uint16_t, std::uint64_t> udpDropsByPort();

// The same, parsed from the text of such a file (exposed for tests).
void addUdpDrops(const std::string& table, std::map<std::uint16_t, std::uint64_t>& byPort);

}  // namespace parlavox::bench
