#include "BareForwarder.h"

#include <arpa/inet.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <system_error>

#include "wire/ControlMessages.h"
#include "wire/Protocol.h"

namespace parlavox::bench {

BareForwarder::BareForwarder(std::uint16_t port)
    : endpoints_(kMaxEndpoints), byPort_(65536, 0), outgoing_(kMaxSend), buffers_(kBatch * kSlot) {
  fd_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd_ < 0) {
    throw std::system_error(errno, std::system_category(), "socket");
  }
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_port = htons(port);
  local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::bind(fd_, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) {
    const int error = errno;
    ::close(fd_);
    throw std::system_error(error, std::system_category(), "bind");
  }
  socklen_t length = sizeof local;
  ::getsockname(fd_, reinterpret_cast<sockaddr*>(&local), &length);
  port_ = ntohs(local.sin_port);
  for (std::size_t i = 0; i < kBatch; ++i) {
    incomingIov_[i] = {buffers_.data() + i * kSlot, kSlot};
  }
}

BareForwarder::~BareForwarder() {
  ::close(fd_);
}

void BareForwarder::registerEndpoint(const sockaddr_in& from) {
  const std::uint16_t port = ntohs(from.sin_port);
  if (byPort_[port] != 0 || count_ == kMaxEndpoints) {
    return;
  }
  endpoints_[count_] = from;
  ++count_;
  byPort_[port] = static_cast<std::uint16_t>(count_);
  const std::string welcome =
      wire::encodeControl(wire::WelcomeMsg{static_cast<std::uint16_t>(count_), "Crew", 1, 1});
  (void)::sendto(fd_, welcome.data(), welcome.size(), MSG_DONTWAIT,
                 reinterpret_cast<const sockaddr*>(&from), sizeof from);
}

// Everyone but the sender (at index `sender`) gets a copy of datagram `datagram` of the batch.
void BareForwarder::queueCopies(std::size_t datagram, std::size_t sender) {
  for (std::size_t k = 1; k < count_; ++k) {
    if (queued_ == kMaxSend) {
      flush();
    }
    msghdr& header = outgoing_[queued_++].msg_hdr;
    header = msghdr{};
    header.msg_name = &endpoints_[(sender + k) % count_];
    header.msg_namelen = sizeof(sockaddr_in);
    header.msg_iov = &outgoingIov_[datagram];
    header.msg_iovlen = 1;
  }
}

// A copy the kernel refuses is skipped, not retried, as the relay does.
void BareForwarder::flush() {
  std::size_t next = 0;
  while (next < queued_) {
    const int sent = ::sendmmsg(fd_, &outgoing_[next], static_cast<unsigned>(queued_ - next),
                                MSG_DONTWAIT | MSG_NOSIGNAL);
    next += (sent > 0 ? static_cast<std::size_t>(sent) : 0) + 1;
  }
  queued_ = 0;
}

std::size_t BareForwarder::serveBatch(int timeoutMs) {
  if (timeoutMs != timeoutMs_) {
    // A blocking socket with a receive time-out: one recvmmsg both waits and drains.
    timeval limit{};
    if (timeoutMs > 0) {
      limit.tv_sec = timeoutMs / 1000;
      limit.tv_usec = static_cast<suseconds_t>(timeoutMs % 1000) * 1000;
    }
    (void)::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    timeoutMs_ = timeoutMs;
  }
  for (std::size_t i = 0; i < kBatch; ++i) {
    incoming_[i].msg_hdr = msghdr{};
    incoming_[i].msg_hdr.msg_name = &sources_[i];
    incoming_[i].msg_hdr.msg_namelen = sizeof(sockaddr_in);
    incoming_[i].msg_hdr.msg_iov = &incomingIov_[i];
    incoming_[i].msg_hdr.msg_iovlen = 1;
  }
  const int received = ::recvmmsg(fd_, incoming_.data(), kBatch, MSG_WAITFORONE, nullptr);
  if (received <= 0) {
    return 0;
  }
  for (std::size_t i = 0; i < static_cast<std::size_t>(received); ++i) {
    const std::uint8_t* data = buffers_.data() + i * kSlot;
    const std::size_t length = incoming_[i].msg_len;
    if (length == 0 || (incoming_[i].msg_hdr.msg_flags & MSG_TRUNC) != 0) {
      continue;
    }
    const std::uint16_t index = byPort_[ntohs(sources_[i].sin_port)];
    if (data[0] == wire::kControlKind) {
      if (index == 0) {
        registerEndpoint(sources_[i]);
      }
      continue;
    }
    if (data[0] != wire::kAudioKind || index == 0 || count_ < 2) {
      continue;
    }
    outgoingIov_[i] = {const_cast<std::uint8_t*>(data), length};
    queueCopies(i, index - 1);
  }
  flush();
  return static_cast<std::size_t>(received);
}

void BareForwarder::serve() {
  for (;;) {
    serveBatch(0);
  }
}

void runBareForwarder(std::uint16_t port) {
  BareForwarder forwarder(port);
  forwarder.serve();
}

}  // namespace parlavox::bench
