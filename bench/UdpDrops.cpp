#include "UdpDrops.h"

#include <fstream>
#include <sstream>

namespace parlavox::bench {

void addUdpDrops(const std::string& table, std::map<std::uint16_t, std::uint64_t>& byPort) {
  std::istringstream lines(table);
  std::string line;
  std::getline(lines, line);  // the column titles
  while (std::getline(lines, line)) {
    // sl local_address rem_address st tx:rx tr:when retrnsmt uid timeout inode ref pointer drops
    std::istringstream fields(line);
    std::string slot;
    std::string local;
    fields >> slot >> local;
    const auto colon = local.rfind(':');
    if (colon == std::string::npos) {
      continue;
    }
    std::string field;
    std::string last;
    while (fields >> field) {
      last = field;
    }
    try {
      const auto port =
          static_cast<std::uint16_t>(std::stoul(local.substr(colon + 1), nullptr, 16));
      byPort[port] += std::stoull(last);
    } catch (const std::exception&) {
      // Not a socket line.
    }
  }
}

std::map<std::uint16_t, std::uint64_t> udpDropsByPort() {
  std::map<std::uint16_t, std::uint64_t> byPort;
  for (const char* path : {"/proc/self/net/udp", "/proc/self/net/udp6"}) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    addUdpDrops(text.str(), byPort);
  }
  return byPort;
}

}  // namespace parlavox::bench
