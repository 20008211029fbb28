// Fuzz target: the whole path of a datagram through the relay (peer table, control messages,
// joins, audio fan-out, rosters, the liveness sweep) with fake transports and simulated time.
// The input is a script of steps, each [op][client] and then, for a datagram, [length: 2 bytes,
// little-endian][bytes]: op % 4 is 0 or 1 a datagram from the client, 2 its connection ending,
// 3 time passing (client × 50 ms). A client byte's low four bits are its port, the rest its host.
#include <cstddef>
#include <cstdint>
#include <string>
#include <variant>

#include "FuzzCheck.h"
#include "fakes/FakeConsole.h"
#include "fakes/FakeNetwork.h"
#include "fakes/SimulatedLoop.h"
#include "relay/IntercomServer.h"
#include "wire/Audio.h"
#include "wire/ByteOrder.h"
#include "wire/ControlMessages.h"
#include "wire/Protocol.h"

namespace {

using namespace parlavox;
using fuzz::require;

std::uint64_t clientNumber(std::uint8_t client) {
  return (client & 0x0FU) | (static_cast<std::uint64_t>(client >> 4) << 16);
}

bool isPrintable(const std::string& line) {
  for (const char c : line) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) {
      return false;
    }
  }
  return true;
}

// What the server sent since the last look: datagrams that fit, control messages a client can
// read, audio only under a real peer's id, on some channel, and never back to its sender.
void checkSent(test::FakePeerListener& port, std::uint64_t from, bool fromAudio) {
  for (auto& [client, datagrams] : port.sent) {
    for (const test::Datagram& datagram : datagrams) {
      require(!datagram.empty() && datagram.size() <= wire::kMaxDatagram, "a datagram that fits");
      if (datagram[0] == wire::kControlKind) {
        require(wire::decodeServerMessage(Bytes(datagram).subspan(1)).has_value(),
                "a control message the client can read");
      } else {
        const auto header = wire::AudioHeader::read(datagram);
        require(header.has_value(), "audio with a whole header");
        require(header->senderID != 0 && header->senderID != wire::announcerID,
                "audio under a peer's own id");
        require(header->mask != 0, "audio on some channel");
        require(fromAudio && client != from, "audio only relayed, never to its sender");
      }
    }
  }
  port.sent.clear();
}

}  // namespace

// The name and signature are libFuzzer's.
extern "C" int LLVMFuzzerTestOneInput(  // NOLINT(readability-identifier-naming)
    const std::uint8_t* data, std::size_t size) {
  test::FakeClock clock;
  test::SimulatedLoop loop(clock);
  test::FakePeerListener port;
  test::FakeAdvertiser advertiser;
  test::FakeConsole console;
  auto server = IntercomServer::create(
      Show(defaultConfig()), ServerPlatform{loop, advertiser, clock, console},
      [](int) { require(false, "the intercom port is never lost"); });
  server->start(port);

  Bytes script(data, size);
  while (script.size() >= 2) {
    const std::uint8_t op = script[0] % 4;
    const std::uint64_t client = clientNumber(script[1]);
    script = script.subspan(2);
    bool audio = false;
    if (op <= 1) {
      std::size_t length = 0;
      if (script.size() >= 2) {
        length = std::min<std::size_t>(wire::loadLE16(script.data()), script.size() - 2);
        script = script.subspan(2);
      }
      const test::Datagram datagram(script.begin(), script.begin() + static_cast<long>(length));
      script = script.subspan(length);
      audio = !datagram.empty() && datagram[0] == wire::kAudioKind;
      port.deliver(client, datagram);
    } else if (op == 2) {
      port.close(client);
    } else {
      loop.advance(std::chrono::milliseconds(50 * (client & 0xFF)));
    }
    checkSent(port, client, audio);
  }
  loop.advance(std::chrono::seconds(12));  // the sweep lets everyone go
  checkSent(port, ~0ULL, false);
  for (const std::string& line : console.take()) {
    require(isPrintable(line), "console lines without control characters");
  }
  return 0;
}
