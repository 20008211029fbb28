#pragma once

#include <boost/asio/io_context.hpp>

#include "platform/Network.h"

namespace parlavox::platform {

// Opens UDP ports on the server loop's io_context.
class UdpNetwork final : public Network {
 public:
  explicit UdpNetwork(boost::asio::io_context& context) : context_(context) {}

  std::unique_ptr<PeerListener> listenPeers(std::uint16_t port) override;
  std::unique_ptr<DatagramListener> listenDatagrams(std::uint16_t port) override;

 private:
  boost::asio::io_context& context_;
};

}  // namespace parlavox::platform
