#pragma once

#include "relay/LinkHealth.h"

namespace parlavox {

// Where the operator's monitor turns a link's figure amber (from `warn`) and red (above `bad`).
struct LinkGrade {
  double warn = 0;
  double bad = 0;
};

// Audio lost over the last 10 s, as a share: red where the console warns.
inline constexpr LinkGrade kLossGrade{0.01, LinkHealth::kLossWarning};
// Jitter against the 20 ms pace, in ms: the page's playback banks 60 ms.
inline constexpr LinkGrade kJitterGradeMs{15, 40};
// Time since the peer was last heard, in ms: a keepalive is due every 2 s.
inline constexpr LinkGrade kLastHeardGradeMs{3000, 6000};

}  // namespace parlavox
