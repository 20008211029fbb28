// What one check of the operator's password costs the event loop: the slow hash, as the gate runs
// it for an Authorization it has not seen (each one seen is remembered).
#include <benchmark/benchmark.h>

#include "platform/PasswordHash.h"

namespace {

void checkOperatorPassword(benchmark::State& state) {
  const auto hash = parlavox::platform::hashPassword("a password of the show's");
  for (auto _ : state) {
    benchmark::DoNotOptimize(parlavox::platform::verifyPassword("a password of the show's", *hash));
  }
}
BENCHMARK(checkOperatorPassword)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
