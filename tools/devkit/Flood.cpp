#include "devkit/Flood.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "platform/ProcFiles.h"

namespace parlavox::devkit {

IdleConnections::IdleConnections(std::size_t count, std::size_t hosts, std::uint16_t port, int net)
    : hosts_(hosts), port_(port), net_(net) {
  for (std::size_t n = 0; n < count; ++n) {
    sockets_.push_back(open(n));
  }
}

IdleConnections::~IdleConnections() {
  for (const int socket : sockets_) {
    ::close(socket);
  }
}

// Non-blocking, so that a server that has stopped accepting leaves it in its backlog rather than
// holding us up.
int IdleConnections::open(std::size_t n) const {
  const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  const std::string from = "127." + std::to_string(net_) + ".0." + std::to_string(n % hosts_ + 1);
  ::inet_pton(AF_INET, from.c_str(), &address.sin_addr);
  (void)::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  address.sin_port = htons(port_);
  ::inet_pton(AF_INET, "127.0.0.1", &address.sin_addr);
  (void)::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  return socket;
}

std::size_t IdleConnections::topUp() {
  std::vector<pollfd> polled;
  for (const int socket : sockets_) {
    polled.push_back({socket, POLLIN | POLLRDHUP, 0});
  }
  (void)::poll(polled.data(), polled.size(), 0);
  std::size_t reopened = 0;
  for (std::size_t n = 0; n < sockets_.size(); ++n) {
    if ((polled[n].revents & (POLLIN | POLLRDHUP | POLLHUP | POLLERR)) != 0) {
      ::close(sockets_[n]);
      sockets_[n] = open(n);
      ++reopened;
    }
  }
  return reopened;
}

double cpuShare(pid_t pid, std::chrono::milliseconds window) {
  const auto ticks = [pid] {
    const auto stat = platform::readProcStat(pid);
    return stat ? static_cast<double>(stat->userTicks + stat->systemTicks) : 0.0;
  };
  const double before = ticks();
  std::this_thread::sleep_for(window);
  return (ticks() - before) / platform::clockTicksPerSecond() /
         std::chrono::duration<double>(window).count();
}

}  // namespace parlavox::devkit
