#pragma once

#include <string>

namespace parlavox::bench {

// Moves this process (and the programs it starts afterwards) into a network namespace of its own
// with only loopback up, so the fixed intercom port is free and no bench traffic leaves the
// machine. Call before any thread is started. Returns an empty string on success, otherwise why
// it could not be done.
std::string enterPrivateNetwork();

}  // namespace parlavox::bench
