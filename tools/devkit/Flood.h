#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace parlavox::devkit {

// Idle TCP connections to 127.0.0.1:`port`, spread over `hosts` loopback addresses (127.`net`.0.1
// and up), never written to: the flood that holds a server's descriptors. Opened at once; closed
// when destroyed. For the test's or the tool's own thread.
class IdleConnections {
 public:
  IdleConnections(std::size_t count, std::size_t hosts, std::uint16_t port, int net = 30);
  ~IdleConnections();
  IdleConnections(const IdleConnections&) = delete;
  IdleConnections& operator=(const IdleConnections&) = delete;

  // Opens again those the server has closed since: how many there were.
  std::size_t topUp();

 private:
  int open(std::size_t n) const;

  std::size_t hosts_;
  std::uint16_t port_;
  int net_;
  std::vector<int> sockets_;
};

// Any thread. The share of one CPU that process `pid` used over the next `window`, from /proc.
double cpuShare(pid_t pid, std::chrono::milliseconds window);

}  // namespace parlavox::devkit
