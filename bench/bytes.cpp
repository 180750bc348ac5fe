// What the helpers that turn bytes into text cost, in ns.
#include "harness/Bytes.h"

#include <benchmark/benchmark.h>

#include <array>

namespace {

void dump(benchmark::State& state) {
  const std::array<std::uint8_t, 4096> bytes{};
  for ([[maybe_unused]] auto _ : state) {
    hexDump(bytes.data(), static_cast<std::uint32_t>(state.range(0)));
  }
}
BENCHMARK(dump)->Arg(30)->Arg(256)->Arg(4096);

}  // namespace

BENCHMARK_MAIN();
