#pragma once

#include <cstddef>
#include <vector>

#include "LoadGenerator.h"

namespace parlavox::bench {

// How evenly an announcement's frames reached the listening client. The sender means frame i to
// leave at start + i × 20 ms and never sends one early, so the start is taken as the earliest that
// no frame beats: lateness of frame i = arrival − (that start + i × 20 ms), never negative. A late
// first frame is then late itself, not the yardstick that makes every later one look early.
struct Pacing {
  std::size_t frames = 0;
  std::size_t missing = 0;
  double seconds = 0;
  double p50Ms = 0;
  double p99Ms = 0;
  double maxMs = 0;
  double driftMs = 0;        // the last frame's lateness: how far the schedule slipped by the end
  double steadyDriftMs = 0;  // median lateness of the last second minus that of the first
};

// Any thread. The pacing of `frames` in the order they arrived, placed in the schedule by their
// sequence numbers (a lost frame leaves its slot empty).
Pacing measurePacing(const std::vector<Frame>& frames);

}  // namespace parlavox::bench
