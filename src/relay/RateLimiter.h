#pragma once

#include <cstddef>
#include <cstdint>
#include <unordered_map>
#include <vector>

#include "platform/Clock.h"
#include "platform/HostAddress.h"
#include "relay/TokenBucket.h"

namespace parlavox {

// A token bucket per source host, in bounded memory: each host may spend `burst` tokens at once,
// refilled at `perSecond`. Past `hosts` hosts, the one first seen longest ago is forgotten (its
// bucket starts full again), so a flood of sources costs a fixed amount of memory and a single
// source still gets at most `burst` per `hosts` other sources in between. Loop thread only.
class RateLimiter {
 public:
  using Host = platform::HostAddress;

  RateLimiter(double burst, double perSecond, std::size_t hosts = 4096);

  // Takes a token from `host`'s bucket: false, taking nothing, when it is empty.
  bool allow(const Host& host, platform::MonoTime now);

 private:
  const double burst_;
  const double perSecond_;
  const std::size_t hosts_;
  std::unordered_map<Host, TokenBucket, platform::HostAddressHash> buckets_;
  std::vector<Host> order_;  // a ring, in the order hosts were first seen
  std::size_t oldest_ = 0;
};

}  // namespace parlavox
