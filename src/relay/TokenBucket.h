#pragma once

#include <algorithm>
#include <chrono>

#include "platform/Clock.h"

namespace parlavox {

// A token bucket: at most `burst` tokens at once, refilled at `perSecond`; it starts full. Not
// thread-safe: its owner's thread only.
class TokenBucket {
 public:
  TokenBucket(double burst, platform::MonoTime now) : tokens_(burst), filledAt_(now) {}

  // Takes a token: false, taking nothing, when there is none.
  bool take(platform::MonoTime now, double burst, double perSecond) {
    const double elapsed = std::chrono::duration<double>(now - filledAt_).count();
    tokens_ = std::min(burst, tokens_ + elapsed * perSecond);
    filledAt_ = now;
    if (tokens_ < 1.0) {
      return false;
    }
    tokens_ -= 1.0;
    return true;
  }

 private:
  double tokens_;
  platform::MonoTime filledAt_;
};

}  // namespace parlavox
