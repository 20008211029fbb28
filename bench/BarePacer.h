#pragma once

#include <cstddef>
#include <cstdint>

namespace parlavox::bench {

// The reference for announcement pacing: one thread that sleeps to absolute deadlines start +
// i × 20 ms on the monotonic clock, with the announcer's timer slack, and sends a 649-byte frame
// (sender 0xFFFF, seq i + 1) at each. It waits on 127.0.0.1:`port` for a datagram, then sends
// `frames` frames to whoever sent it and prints "done". What it shows is the machine's own
// scheduling noise; whatever the server adds is the server's. Throws std::system_error when the
// port cannot be had.
[[noreturn]] void runBarePacer(std::uint16_t port, std::size_t frames);

}  // namespace parlavox::bench
