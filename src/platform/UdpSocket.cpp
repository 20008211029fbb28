#include "platform/UdpSocket.h"

#include <arpa/inet.h>

#include <asio/ip/v6_only.hpp>
#include <cerrno>
#include <cstring>
#include <system_error>

namespace parlavox::platform {
namespace {

constexpr std::size_t kBatch = 16;
constexpr std::size_t kMaxDatagram = 65536;  // larger than any UDP payload

asio::ip::udp::socket bindSocket(asio::io_context& context, std::uint16_t port) {
  asio::ip::udp::socket socket(context);
  std::error_code error;
  socket.open(asio::ip::udp::v6(), error);
  if (!error) {
    socket.set_option(asio::ip::v6_only(false), error);
  }
  if (!error) {
    socket.bind({asio::ip::address_v6::any(), port}, error);
    if (!error) {
      socket.non_blocking(true);
      return socket;
    }
    if (error != std::errc::address_family_not_supported &&
        error != std::errc::address_not_available) {
      throw std::system_error(error, "bind");
    }
  }
  // A host without IPv6.
  std::error_code ignored;
  socket.close(ignored);
  socket.open(asio::ip::udp::v4());
  socket.bind({asio::ip::address_v4::any(), port});
  socket.non_blocking(true);
  return socket;
}

// Errors that concern one datagram or one client, never the socket itself.
bool isTransient(int error) {
  switch (error) {
    case EAGAIN:
    case EINTR:
    case ECONNREFUSED:
    case EHOSTUNREACH:
    case ENETUNREACH:
    case ENOBUFS:
    case ENOMEM:
    case EMSGSIZE:
      return true;
    default:
      return false;
  }
}

}  // namespace

bool Endpoint::operator==(const Endpoint& other) const {
  return address.sin6_port == other.address.sin6_port &&
         address.sin6_scope_id == other.address.sin6_scope_id &&
         std::memcmp(&address.sin6_addr, &other.address.sin6_addr, sizeof(in6_addr)) == 0;
}

std::size_t EndpointHash::operator()(const Endpoint& endpoint) const noexcept {
  std::uint64_t words[2];
  std::memcpy(words, &endpoint.address.sin6_addr, sizeof words);
  std::uint64_t h = words[0] * 0x9E3779B97F4A7C15ULL ^ words[1];
  h ^= (h >> 29) ^ (std::uint64_t{endpoint.address.sin6_port} << 17);
  return static_cast<std::size_t>(h * 0xBF58476D1CE4E5B9ULL);
}

UdpSocket::UdpSocket(asio::io_context& context, std::uint16_t port)
    : socket_(bindSocket(context, port)),
      v4_(socket_.local_endpoint().protocol() == asio::ip::udp::v4()),
      buffers_(kBatch * kMaxDatagram),
      messages_(kBatch),
      iovecs_(kBatch),
      sources_(kBatch) {}

UdpSocket::~UdpSocket() {
  std::error_code ignored;
  socket_.close(ignored);
}

void UdpSocket::start(DatagramHandler onDatagram, FailureHandler onFailed) {
  onDatagram_ = std::move(onDatagram);
  onFailed_ = std::move(onFailed);
  waitReadable();
}

void UdpSocket::waitReadable() {
  socket_.async_wait(asio::ip::udp::socket::wait_read, [this](const std::error_code& error) {
    if (error == asio::error::operation_aborted) {
      return;  // the socket is closing
    }
    if (error) {
      onFailed_(error.message());
      return;
    }
    if (drain()) {
      waitReadable();
    }
  });
}

// Reads what is waiting, in batches, and hands each datagram on. False once the socket failed.
bool UdpSocket::drain() {
  for (int round = 0; round < 4; ++round) {  // bounded, so timers and posted work get their turn
    for (std::size_t i = 0; i < kBatch; ++i) {
      iovecs_[i] = {buffers_.data() + i * kMaxDatagram, kMaxDatagram};
      messages_[i].msg_hdr = msghdr{};
      messages_[i].msg_hdr.msg_name = &sources_[i];
      messages_[i].msg_hdr.msg_namelen = sizeof(sockaddr_in6);
      messages_[i].msg_hdr.msg_iov = &iovecs_[i];
      messages_[i].msg_hdr.msg_iovlen = 1;
    }
    const int count = ::recvmmsg(socket_.native_handle(), messages_.data(),
                                 static_cast<unsigned>(kBatch), MSG_DONTWAIT, nullptr);
    if (count < 0) {
      if (isTransient(errno)) {
        return true;
      }
      onFailed_(std::system_category().message(errno));
      return false;
    }
    for (std::size_t i = 0; i < static_cast<std::size_t>(count); ++i) {
      Endpoint from;
      if (v4_) {
        // Keep one key form: IPv4 senders as v4-mapped IPv6.
        sockaddr_in v4from{};
        std::memcpy(&v4from, &sources_[i], sizeof v4from);
        from.address.sin6_family = AF_INET6;
        from.address.sin6_port = v4from.sin_port;
        from.address.sin6_addr.s6_addr[10] = 0xFF;
        from.address.sin6_addr.s6_addr[11] = 0xFF;
        std::memcpy(&from.address.sin6_addr.s6_addr[12], &v4from.sin_addr, 4);
      } else {
        from.address = sources_[i];
      }
      onDatagram_(Bytes(buffers_.data() + i * kMaxDatagram, messages_[i].msg_len), from);
    }
    if (static_cast<std::size_t>(count) < kBatch) {
      return true;
    }
  }
  return true;
}

void UdpSocket::sendTo(const Endpoint& to, Bytes head, Bytes body) {
  sockaddr_storage storage{};
  socklen_t length = 0;
  if (v4_) {
    auto& v4to = reinterpret_cast<sockaddr_in&>(storage);
    v4to.sin_family = AF_INET;
    v4to.sin_port = to.address.sin6_port;
    std::memcpy(&v4to.sin_addr, &to.address.sin6_addr.s6_addr[12], 4);
    length = sizeof(sockaddr_in);
  } else {
    std::memcpy(&storage, &to.address, sizeof(sockaddr_in6));
    length = sizeof(sockaddr_in6);
  }
  iovec parts[2] = {{const_cast<std::uint8_t*>(head.data()), head.size()},
                    {const_cast<std::uint8_t*>(body.data()), body.size()}};
  msghdr message{};
  message.msg_name = &storage;
  message.msg_namelen = length;
  message.msg_iov = parts;
  message.msg_iovlen = body.empty() ? 1 : 2;
  // Fire and forget: the result is deliberately not looked at.
  (void)::sendmsg(socket_.native_handle(), &message, MSG_DONTWAIT | MSG_NOSIGNAL);
}

}  // namespace parlavox::platform
