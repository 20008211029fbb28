// The reference on real loopback sockets: what it forwards, to whom, and what it leaves alone.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <optional>
#include <vector>

#include "BareForwarder.h"
#include "Wire.h"

namespace parlavox::bench {
namespace {

using Datagram = std::vector<std::uint8_t>;

class Client {
 public:
  explicit Client(std::uint16_t port) {
    fd_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(::connect(fd_, reinterpret_cast<const sockaddr*>(&to), sizeof to), 0);
  }
  ~Client() { ::close(fd_); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;
  void send(const Datagram& datagram) {
    ASSERT_GT(::send(fd_, datagram.data(), datagram.size(), 0), 0);
  }
  std::optional<Datagram> receive(int timeoutMs) {
    pollfd ready{fd_, POLLIN, 0};
    if (::poll(&ready, 1, timeoutMs) != 1) {
      return std::nullopt;
    }
    Datagram buffer(4096);
    const ssize_t n = ::recv(fd_, buffer.data(), buffer.size(), 0);
    buffer.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
    return buffer;
  }

 private:
  int fd_ = -1;
};

// Serves until `count` datagrams have been taken in.
void serve(BareForwarder& forwarder, std::size_t count) {
  std::size_t seen = 0;
  for (int round = 0; round < 100 && seen < count; ++round) {
    seen += forwarder.serveBatch(50);
  }
  ASSERT_EQ(seen, count);
}

TEST(BareForwarder, FansOutUnchangedToEveryoneButTheSender) {
  BareForwarder forwarder(0);
  Client a(forwarder.port());
  Client b(forwarder.port());
  Client c(forwarder.port());
  for (Client* client : {&a, &b, &c}) {
    client->send(control(R"({"t":"join"})"));
  }
  serve(forwarder, 3);
  EXPECT_EQ(forwarder.endpoints(), 3U);
  for (Client* client : {&a, &b, &c}) {
    const auto welcome = client->receive(1000);
    ASSERT_TRUE(welcome);
    EXPECT_EQ(*welcome, control(R"({"t":"welcome"})"));
  }

  Datagram audio(kDatagramSize);
  writeAudio(audio, 0x1, Probe{1, 0, 9, 42});
  b.send(audio);
  serve(forwarder, 1);
  EXPECT_EQ(a.receive(1000), audio);
  EXPECT_EQ(c.receive(1000), audio);
  EXPECT_FALSE(b.receive(100)) << "the sender must not hear itself";

  // The last endpoint in the ring talks too: its run wraps round to the first ones.
  c.send(audio);
  serve(forwarder, 1);
  EXPECT_EQ(a.receive(1000), audio);
  EXPECT_EQ(b.receive(1000), audio);
  EXPECT_FALSE(c.receive(100));
}

TEST(BareForwarder, StrangersAndRepeatedJoinsChangeNothing) {
  BareForwarder forwarder(0);
  Client a(forwarder.port());
  Client b(forwarder.port());
  Client stranger(forwarder.port());
  a.send(control("{}"));
  b.send(control("{}"));
  a.send(control("{}"));  // again: still one endpoint, no second welcome
  serve(forwarder, 3);
  EXPECT_EQ(forwarder.endpoints(), 2U);
  ASSERT_TRUE(a.receive(1000));
  EXPECT_FALSE(a.receive(100));
  ASSERT_TRUE(b.receive(1000));

  Datagram audio(kDatagramSize);
  writeAudio(audio, 0x1, Probe{1, 0, 0, 0});
  stranger.send(audio);  // audio from an endpoint that never registered
  serve(forwarder, 1);
  EXPECT_FALSE(a.receive(100));
  EXPECT_FALSE(b.receive(0));
  EXPECT_FALSE(stranger.receive(0));
}

}  // namespace
}  // namespace parlavox::bench
