#include "client/Pacer.h"

namespace parlavox::client {

Pacer::Pacer(platform::MonoTime start, platform::MonoClock::duration period,
             platform::MonoClock::duration maxLag)
    : anchor_(start), period_(period), maxLag_(maxLag) {}

platform::MonoTime Pacer::next(platform::MonoTime now) {
  platform::MonoTime due = anchor_ + period_ * sinceAnchor_;
  if (now - due > maxLag_) {
    anchor_ = now;
    sinceAnchor_ = 0;
    due = now;
    ++restarts_;
  }
  ++sinceAnchor_;
  ++scheduled_;
  return due;
}

}  // namespace parlavox::client
