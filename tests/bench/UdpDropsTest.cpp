#include <gtest/gtest.h>

#include "UdpDrops.h"

namespace parlavox::bench {
namespace {

TEST(UdpDrops, SumsTheLastColumnByLocalPort) {
  // Shapes of /proc/net/udp and /proc/net/udp6 lines, with their drops last.
  const std::string udp =
      "   sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  "
      "timeout inode ref pointer drops\n"
      "  12: 0100007F:C568 00000000:0000 07 00000000:00000000 00:00000000 00000000     0        "
      "0 4242 2 0000000000000000 17\n"
      "  13: 0100007F:9C40 00000000:0000 07 00000000:00000000 00:00000000 00000000     0        "
      "0 4243 2 0000000000000000 0\n";
  const std::string udp6 =
      "  sl  local_address                         remote_address                        st "
      "tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode ref pointer drops\n"
      "  40: 00000000000000000000000000000000:C549 00000000000000000000000000000000:0000 07 "
      "00000000:00000000 00:00000000 00000000     0        0 5000 2 0000000000000000 123\n";
  std::map<std::uint16_t, std::uint64_t> drops;
  addUdpDrops(udp, drops);
  addUdpDrops(udp6, drops);
  EXPECT_EQ(drops[0xC568], 17U);
  EXPECT_EQ(drops[0x9C40], 0U);
  EXPECT_EQ(drops[50505], 123U);
  addUdpDrops(udp6, drops);
  EXPECT_EQ(drops[50505], 246U) << "sockets on the same port add up";
}

}  // namespace
}  // namespace parlavox::bench
