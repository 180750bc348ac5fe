// What the helpers that turn bytes into text and match ATRs cost, in ns.

#include "harness/Bytes.h"

#include <benchmark/benchmark.h>

#include <array>

#include "cards/Atr.h"
#include "cards/KnownCards.h"
#include "harness/Output.h"

namespace kestrel {

namespace {

void dump(benchmark::State& state) {
  const std::array<std::uint8_t, 4096> bytes{};
  for ([[maybe_unused]] auto _ : state) {
    hexDump(bytes.data(), static_cast<std::uint32_t>(state.range(0)));
  }
  report.flush();  // the figures are to begin a line
}
BENCHMARK(dump)->Arg(30)->Arg(256)->Arg(4096);

// An ATR that is the last row's, or the first one's.
void match(benchmark::State& state) {
  const KnownCard& card = KnownCardTable[static_cast<std::size_t>(state.range(0))];
  std::array<std::uint8_t, maxAtrLength> atr{};
  std::size_t length = atr.size();
  parseHexText(card.atr, atr.data(), &length);
  for ([[maybe_unused]] auto _ : state) {
    benchmark::DoNotOptimize(matchAtr(KnownCardTable, atr.data(), length));
  }
  report.flush();
}
BENCHMARK(match)->Arg(0)->Arg(77);

}  // namespace

}  // namespace kestrel

BENCHMARK_MAIN();
