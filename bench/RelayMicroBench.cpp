// The relay's own work per audio datagram, sockets left out: relayAudio over the joined-peer array
// of joined peers on a transport that only counts what it is given.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

#include "relay/AudioRelay.h"
#include "wire/Audio.h"

namespace {

using namespace parlavox;

class CountingTransport final : public platform::Transport {
 public:
  Kind kind() const override { return Kind::udp; }
  void send(const platform::PeerAddress& /*to*/, Bytes head, Bytes body) override {
    bytes += head.size() + body.size();
    benchmark::DoNotOptimize(head.data());
  }
  void end(const platform::PeerAddress& /*peer*/) override {}
  std::uint64_t bytes = 0;
};

void relayToEveryone(benchmark::State& state) {
  const auto peers = static_cast<std::size_t>(state.range(0));
  CountingTransport transport;
  std::vector<platform::PeerAddress> addresses;
  for (std::size_t i = 0; i < peers; ++i) {
    addresses.push_back({&transport, {}, i + 1});
  }
  std::vector<JoinedPeer> crew;
  for (std::size_t i = 0; i < peers; ++i) {
    crew.push_back({static_cast<std::uint16_t>(i + 1), {}, 0x1, &transport, &addresses[i]});
  }
  Peer sender;
  sender.address = addresses[0];
  sender.id = 1;
  sender.joined = true;
  sender.talkMask = 0x1;
  sender.listenMask = 0x1;
  std::vector<std::uint8_t> samples(wire::kFrameBytes, 0x55);
  const std::vector<std::uint8_t> datagram = wire::encodeAudio({0, 0x1, 0}, samples);
  for (auto _ : state) {
    relayAudio(datagram, sender, crew);
  }
  state.counters["copies/s"] =
      benchmark::Counter(static_cast<double>(state.iterations()) * static_cast<double>(peers - 1),
                         benchmark::Counter::kIsRate);
}

BENCHMARK(relayToEveryone)->Arg(16)->Arg(64)->Arg(256);

}  // namespace

BENCHMARK_MAIN();
