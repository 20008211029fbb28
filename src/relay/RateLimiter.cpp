#include "relay/RateLimiter.h"

#include <algorithm>

namespace parlavox {

RateLimiter::RateLimiter(double burst, double perSecond, std::size_t hosts)
    : burst_(burst), perSecond_(perSecond), hosts_(std::max<std::size_t>(hosts, 1)) {
  buckets_.reserve(hosts_);
  order_.reserve(hosts_);
}

bool RateLimiter::allow(const Host& host, platform::MonoTime now) {
  auto found = buckets_.find(host);
  if (found == buckets_.end()) {
    if (order_.size() < hosts_) {
      order_.push_back(host);
    } else {
      buckets_.erase(order_[oldest_]);
      order_[oldest_] = host;
      oldest_ = (oldest_ + 1) % order_.size();
    }
    found = buckets_.emplace(host, TokenBucket(burst_, now)).first;
  }
  return found->second.take(now, burst_, perSecond_);
}

}  // namespace parlavox
