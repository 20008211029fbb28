#pragma once

#include <string>

#include "Scenarios.h"

namespace parlavox::bench {

// The one table the bench prints: every scenario next to its reference, then each target with
// PASS or MISS (or "n/a" when the run did not measure it).
std::string formatReport(const Settings& settings, const Results& results);

}  // namespace parlavox::bench
