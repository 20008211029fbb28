// The UDP socket's batching against the kernel: real sockets on loopback, with the system calls
// scripted where the kernel cannot be made to misbehave on cue.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <boost/asio/post.hpp>
#include <cerrno>
#include <cstring>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "client/IntercomClient.h"
#include "platform/UdpSocket.h"

namespace parlavox::platform {
namespace {

using Texts = std::vector<std::string>;

// Each scripted result stands in for one call (n > 0: the first n messages really go, and n is
// returned); then the real calls take over. Sends are counted.
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
  static int next(std::deque<int>& script, int fd, mmsghdr* messages, unsigned count,
                  int (SocketCalls::*real)(int, mmsghdr*, unsigned)) {
    const int scripted = script.empty() ? static_cast<int>(count) : script.front();
    if (!script.empty()) {
      script.pop_front();
    }
    return scripted > 0 ? (system().*real)(fd, messages, static_cast<unsigned>(scripted))
                        : scripted;
  }
};

// A client on 127.0.0.1, and its address as the socket under test sees it (v4-mapped).
struct Client {
  explicit Client(std::uint16_t port) : client("127.0.0.1", port) {
    sockaddr_in local{};
    socklen_t length = sizeof local;
    ::getsockname(client.fd(), reinterpret_cast<sockaddr*>(&local), &length);
    address.sin6_family = AF_INET6;
    address.sin6_port = local.sin_port;
    address.sin6_addr.s6_addr[10] = address.sin6_addr.s6_addr[11] = 0xFF;
    std::memcpy(&address.sin6_addr.s6_addr[12], &local.sin_addr, 4);
  }
  // Whatever has arrived, until 100 ms pass without anything.
  Texts received() {
    Texts texts;
    while (const auto datagram = client.receive(std::chrono::milliseconds(100))) {
      texts.emplace_back(datagram->begin(), datagram->end());
    }
    return texts;
  }
  client::IntercomClient client;
  sockaddr_in6 address{};
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

  boost::asio::io_context context;
  ScriptedCalls calls;
  UdpSocket socket{context, 0, calls};
  Client a{socket.port()};
  Client b{socket.port()};
  Texts failures;
};

TEST_F(UdpSocketTest, TheSendsOfOneTaskLeaveTogetherInOneCallInOrder) {
  start([&](Bytes, const sockaddr_in6& from) {
    socket.sendTo(from, asBytes("1"), asBytes("x"));
    socket.sendTo(b.address, asBytes("2"), asBytes("yy"));
    socket.sendTo(from, asBytes("3"), asBytes("yy"));  // shares the body held for the one before
  });
  a.client.sendRaw(asBytes("hi"));
  runUntil([&] { return !calls.sends.empty(); });
  EXPECT_EQ(a.received(), (Texts{"1x", "3yy"}));
  EXPECT_EQ(b.received(), (Texts{"2yy"}));
  // Sent from a posted task (a timer tick, an announcement frame): together, right after it.
  boost::asio::post(context, [&] {
    socket.sendTo(b.address, asBytes("4"), {});
    socket.sendTo(b.address, asBytes("5"), {});
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
  a.client.sendRaw(asBytes("hi"));
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
  a.client.sendRaw(asBytes("one"));
  runUntil([&] { return !heard.empty(); });
  calls.receiving = {-EBADF};
  a.client.sendRaw(asBytes("two"));
  runUntil([&] { return !failures.empty(); });
  EXPECT_EQ(heard, Texts{"one"});
  EXPECT_EQ(failures, Texts{std::strerror(EBADF)});
}

}  // namespace
}  // namespace parlavox::platform
