// The relay's own work per audio datagram, sockets left out: relayAudio over the listeners of a
// table of joined peers whose flows only count what they are given.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "relay/AudioRelay.h"
#include "relay/Listeners.h"
#include "relay/Peer.h"

namespace {

using namespace parlavox;

class CountingFlow final : public platform::Flow {
 public:
  explicit CountingFlow(std::uint64_t key) : key_(key) {}
  std::uint64_t key() const override { return key_; }
  void start(Handlers) override {}
  void send(Bytes head, Bytes body) override {
    bytes += head.size() + body.size();
    benchmark::DoNotOptimize(head.data());
  }
  void cancel() override {}
  std::uint64_t bytes = 0;

 private:
  std::uint64_t key_;
};

void relayToEveryone(benchmark::State& state) {
  const auto peers = static_cast<std::size_t>(state.range(0));
  PeerTable table;
  std::vector<std::shared_ptr<CountingFlow>> flows;
  for (std::size_t i = 0; i < peers; ++i) {
    auto flow = std::make_shared<CountingFlow>(i + 1);
    auto peer = std::make_shared<Peer>();
    peer->conn = flow;
    peer->id = static_cast<std::uint16_t>(i + 1);
    peer->joined = true;
    peer->talkMask = 0x1;
    peer->listenMask = 0x1;
    table.emplace(i + 1, peer);
    flows.push_back(flow);
  }
  std::vector<std::uint8_t> datagram(649, 0x55);
  datagram[0] = 0x02;
  datagram[3] = 0x01;
  const Peer& sender = *table.at(1);
  const Listeners listeners = listenersOf(table);
  for (auto _ : state) {
    relayAudio(datagram, sender, listeners);
  }
  state.counters["copies/s"] =
      benchmark::Counter(static_cast<double>(state.iterations()) * static_cast<double>(peers - 1),
                         benchmark::Counter::kIsRate);
}

BENCHMARK(relayToEveryone)->Arg(16)->Arg(64)->Arg(256);

}  // namespace

BENCHMARK_MAIN();
