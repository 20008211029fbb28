#include "platform/UdpNetwork.h"

#include "platform/UdpPeerListener.h"
#include "platform/UdpSocket.h"

namespace parlavox::platform {
namespace {

// Every sender's datagrams, one at a time; the sender itself is of no interest.
class UdpDatagramListener final : public DatagramListener {
 public:
  UdpDatagramListener(boost::asio::io_context& context, std::uint16_t port)
      : socket_(context, port) {}

  void start(Handlers handlers) override {
    handlers_ = std::move(handlers);
    socket_.start([this](Bytes datagram, const sockaddr_in6&) { handlers_.onDatagram(datagram); },
                  [this](std::string_view error) { handlers_.onFailed(error); });
  }

 private:
  UdpSocket socket_;
  Handlers handlers_;
};

}  // namespace

std::unique_ptr<PeerListener> UdpNetwork::listenPeers(std::uint16_t port) {
  return std::make_unique<UdpPeerListener>(context_, port);
}

std::unique_ptr<DatagramListener> UdpNetwork::listenDatagrams(std::uint16_t port) {
  return std::make_unique<UdpDatagramListener>(context_, port);
}

}  // namespace parlavox::platform
