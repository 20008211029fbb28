#include "platform/UdpFlowListener.h"

#include <asio/post.hpp>

namespace parlavox::platform {

UdpFlowListener::UdpFlowListener(asio::io_context& context, std::uint16_t port)
    : context_(context), socket_(context, port) {}

UdpFlowListener::~UdpFlowListener() {
  *alive_ = false;
  for (auto& [endpoint, flow] : flows_) {
    flow->listener_ = nullptr;
  }
}

void UdpFlowListener::start(Handlers handlers) {
  handlers_ = std::move(handlers);
  socket_.start([this](Bytes datagram, const Endpoint& from) { onDatagram(datagram, from); },
                [this](std::string_view error) {
                  if (handlers_.onFailed) {
                    handlers_.onFailed(error);
                  }
                });
  // The socket is bound and receiving: report ready from the loop, as a listener would.
  asio::post(context_, [this, alive = std::weak_ptr<bool>(alive_)] {
    if (alive.lock() && handlers_.onReady) {
      handlers_.onReady();
    }
  });
}

void UdpFlowListener::onDatagram(Bytes datagram, const Endpoint& from) {
  auto found = flows_.find(from);
  if (found == flows_.end()) {
    auto flow = std::make_shared<UdpFlow>(*this, from, nextKey_++);
    found = flows_.emplace(from, flow).first;
    handlers_.onFlow(flow);  // the new flow is started by its owner before we deliver to it
  }
  // Hold the flow: its handler may cancel it, which drops the table's reference.
  const std::shared_ptr<UdpFlow> flow = found->second;
  if (flow->listener_ != nullptr && flow->handlers_.onDatagram) {
    flow->handlers_.onDatagram(datagram);
  }
}

void UdpFlowListener::forget(const Endpoint& endpoint) {
  flows_.erase(endpoint);
}

UdpFlow::UdpFlow(UdpFlowListener& listener, const Endpoint& endpoint, std::uint64_t key)
    : listener_(&listener), endpoint_(endpoint), key_(key) {}

void UdpFlow::start(Handlers handlers) {
  handlers_ = std::move(handlers);
}

void UdpFlow::send(Bytes head, Bytes body) {
  if (listener_ != nullptr) {
    listener_->socket_.sendTo(endpoint_, head, body);
  }
}

void UdpFlow::cancel() {
  if (listener_ == nullptr) {
    return;
  }
  UdpFlowListener& listener = *listener_;
  const Endpoint endpoint = endpoint_;  // the table may hold the last reference to this flow
  listener_ = nullptr;                  // delivers nothing more
  // The handlers stay: cancel() may be called from inside onDatagram, which must not be destroyed
  // while it runs. They go with the flow.
  if (handlers_.onEnd) {
    asio::post(listener.context_, [onEnd = handlers_.onEnd] { onEnd(End::cancelled, {}); });
  }
  listener.forget(endpoint);  // `this` may be gone from here on
}

}  // namespace parlavox::platform
