// The UDP socket's batching against the kernel: real sockets on loopback, with the system calls
// scripted where the kernel cannot be made to misbehave on cue.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <asio/post.hpp>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "platform/UdpSocket.h"

namespace parlavox::platform {
namespace {

using Texts = std::vector<std::string>;

// Counts the calls and their sizes; each scripted result stands in for one call (n > 0: the
// first n messages really go, and n is returned), then the real calls take over.
class ScriptedCalls final : public SocketCalls {
 public:
  int receive(int fd, mmsghdr* messages, unsigned count) override {
    return next(receiving, fd, messages, count, &SocketCalls::receive);
  }
  int send(int fd, mmsghdr* messages, unsigned count) override {
    sends.push_back(count);
    return next(sending, fd, messages, count, &SocketCalls::send);
  }
  std::deque<int> receiving;
  std::deque<int> sending;
  std::vector<unsigned> sends;

 private:
  int next(std::deque<int>& script, int fd, mmsghdr* messages, unsigned count,
           int (SocketCalls::*real)(int, mmsghdr*, unsigned)) {
    if (script.empty()) {
      return (system().*real)(fd, messages, count);
    }
    const int result = script.front();
    script.pop_front();
    return result > 0 ? (system().*real)(fd, messages, static_cast<unsigned>(result)) : result;
  }
};

// A plain socket on 127.0.0.1, as a client would have.
class Client {
 public:
  Client() : fd_(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(fd_, reinterpret_cast<const sockaddr*>(&local), sizeof local);
    socklen_t length = sizeof local;
    ::getsockname(fd_, reinterpret_cast<sockaddr*>(&local), &length);
    port_ = local.sin_port;
  }
  ~Client() { ::close(fd_); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  // Our address as the socket under test sees it: IPv4, mapped into IPv6.
  sockaddr_in6 address() const {
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_port = port_;
    address.sin6_addr.s6_addr[10] = address.sin6_addr.s6_addr[11] = 0xFF;
    const in_addr_t loopback = htonl(INADDR_LOOPBACK);
    std::memcpy(&address.sin6_addr.s6_addr[12], &loopback, 4);
    return address;
  }
  void sendTo(std::uint16_t port, const std::string& text) const {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::sendto(fd_, text.data(), text.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
  }
  // Whatever has arrived, until 100 ms pass without anything.
  Texts received() const {
    Texts texts;
    pollfd ready{fd_, POLLIN, 0};
    while (::poll(&ready, 1, 100) == 1) {
      char buffer[256];
      const auto n = ::recv(fd_, buffer, sizeof buffer, 0);
      texts.emplace_back(buffer, static_cast<std::size_t>(std::max<ssize_t>(n, 0)));
    }
    return texts;
  }

 private:
  int fd_;
  in_port_t port_ = 0;
};

class UdpSocketTest : public testing::Test {
 protected:
  void runUntil(const std::function<bool()>& done) {
    for (int i = 0; i < 200 && !done(); ++i) {
      context.restart();
      context.run_for(std::chrono::milliseconds(10));
    }
  }
  void start(const UdpSocket::DatagramHandler& onDatagram) {
    socket.start(onDatagram, [this](std::string_view error) { failures.emplace_back(error); });
  }

  asio::io_context context;
  ScriptedCalls calls;
  UdpSocket socket{context, 0, calls};
  Client a;
  Client b;
  Texts failures;
};

TEST_F(UdpSocketTest, TheSendsOfOneTaskLeaveTogetherInOneCallInOrder) {
  start([&](Bytes, const sockaddr_in6& from) {
    socket.sendTo(from, asBytes("1"), asBytes("x"));
    socket.sendTo(b.address(), asBytes("2"), asBytes("yy"));
    socket.sendTo(from, asBytes("3"), asBytes("yy"));  // shares the body held for the copy before
  });
  a.sendTo(socket.port(), "hi");
  runUntil([&] { return !calls.sends.empty(); });
  EXPECT_EQ(calls.sends, std::vector<unsigned>{3});
  EXPECT_EQ(a.received(), (Texts{"1x", "3yy"}));
  EXPECT_EQ(b.received(), (Texts{"2yy"}));

  // Sent from a posted task (a timer tick, an announcement frame): together, right after it.
  asio::post(context, [&] {
    socket.sendTo(b.address(), asBytes("4"), {});
    socket.sendTo(b.address(), asBytes("5"), {});
  });
  runUntil([&] { return calls.sends.size() == 2; });
  EXPECT_EQ(calls.sends, (std::vector<unsigned>{3, 2}));
  EXPECT_EQ(b.received(), (Texts{"4", "5"}));
}

// The kernel stops a sendmmsg at the first copy it refuses: that copy is dropped, the rest go.
TEST_F(UdpSocketTest, AShortOrRefusedSendDropsOnlyTheCopyRefused) {
  calls.sending = {2, -EAGAIN};  // copies 0 and 1 go and 2 is refused; then 3 is refused
  start([&](Bytes, const sockaddr_in6& from) {
    for (const char* copy : {"0", "1", "2", "3", "4"}) {
      socket.sendTo(from, asBytes(copy), {});
    }
  });
  a.sendTo(socket.port(), "hi");
  runUntil([&] { return calls.sends.size() == 3; });
  EXPECT_EQ(calls.sends, (std::vector<unsigned>{5, 2, 1}));
  EXPECT_EQ(a.received(), (Texts{"0", "1", "4"}));
}

TEST_F(UdpSocketTest, ReceivingOutlastsTransientErrorsAndReportsAFailedSocket) {
  calls.receiving = {-ECONNREFUSED, -EINTR};  // an earlier send's ICMP, a signal: try later
  Texts heard;
  start([&](Bytes datagram, const sockaddr_in6&) {
    heard.emplace_back(reinterpret_cast<const char*>(datagram.data()), datagram.size());
  });
  a.sendTo(socket.port(), "one");
  runUntil([&] { return !heard.empty(); });
  EXPECT_EQ(heard, Texts{"one"});
  EXPECT_TRUE(failures.empty());

  calls.receiving = {-EBADF};
  a.sendTo(socket.port(), "two");
  runUntil([&] { return !failures.empty(); });
  EXPECT_EQ(failures, Texts{std::strerror(EBADF)});
  EXPECT_EQ(heard, Texts{"one"});
}

}  // namespace
}  // namespace parlavox::platform
