#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/Advertiser.h"
#include "platform/Network.h"

namespace parlavox::test {

using Datagram = std::vector<std::uint8_t>;

// The intercom's port, played by the test: clients are numbers, deliver() is a datagram from one,
// and `sent` holds what the server sent to each. A client number's bits from 16 up pick its host:
// clients 1, 2, 3 are three programs on one machine, 1 << 16 and 2 << 16 two machines.
class FakePeerListener final : public platform::PeerListener {
 public:
  Kind kind() const override { return Kind::udp; }
  std::uint16_t port() const override { return 50505; }
  void start(Receiver& receiver, Handlers handlers) override {
    receiver_ = &receiver;
    handlers_ = std::move(handlers);
  }
  void send(const platform::PeerAddress& to, Bytes head, Bytes body) override {
    Datagram datagram(head.begin(), head.end());
    datagram.insert(datagram.end(), body.begin(), body.end());
    sent[to.slot].push_back(std::move(datagram));
  }
  void end(const platform::PeerAddress& peer) override { ended.push_back(peer.slot); }

  platform::PeerAddress address(std::uint64_t client) {
    platform::PeerAddress address{this, {}, client};
    const std::uint64_t host = client >> 16;
    for (std::size_t i = 0; i < 8; ++i) {
      address.host.bytes.at(15 - i) = static_cast<std::uint8_t>(host >> (8 * i));
    }
    return address;
  }
  void deliver(std::uint64_t client, const Datagram& datagram) {
    receiver_->deliver(address(client), datagram);
  }
  void close(std::uint64_t client) { receiver_->ended(address(client)); }
  void ready() { handlers_.onReady(); }
  void fail(std::string_view error) { handlers_.onFailed(error); }

  std::map<std::uint64_t, std::vector<Datagram>> sent;
  std::vector<std::uint64_t> ended;

 private:
  Receiver* receiver_ = nullptr;
  Handlers handlers_;
};

// A receive-only port driven by the test.
class FakeDatagramListener final : public platform::DatagramListener {
 public:
  void start(Handlers handlers) override { handlers_ = std::move(handlers); }
  void deliver(const Datagram& datagram) { handlers_.onDatagram(datagram); }
  void fail(std::string_view error) { handlers_.onFailed(error); }

 private:
  Handlers handlers_;
};

// Hands out the fakes above. Which ports are opened, and what happens when one is taken, is seen
// end to end.
class FakeNetwork final : public platform::Network {
 public:
  std::unique_ptr<platform::PeerListener> listenPeers(std::uint16_t /*port*/) override {
    auto listener = std::make_unique<FakePeerListener>();
    peers = listener.get();
    return listener;
  }
  std::unique_ptr<platform::DatagramListener> listenDatagrams(std::uint16_t /*port*/) override {
    auto listener = std::make_unique<FakeDatagramListener>();
    datagrams = listener.get();
    return listener;
  }

  FakePeerListener* peers = nullptr;          // owned by whoever asked for it
  FakeDatagramListener* datagrams = nullptr;  // likewise
};

// Advertising is seen end to end, against a real Avahi daemon.
class FakeAdvertiser final : public platform::Advertiser {
 public:
  void advertise(const std::string&, const std::string&, std::uint16_t,
                 StateHandler handler) override {
    onChange = std::move(handler);
  }
  StateHandler onChange;  // the test says when the service is advertised
};

}  // namespace parlavox::test
