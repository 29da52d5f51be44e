// The walk over an SMBIOS structure table of 64 KiB, beside its floor: one pass over the same bytes.

#include <benchmark/benchmark.h>

#include <iterator>
#include <string>
#include <vector>

#include "firmware/smbios_walk.h"

namespace {

constexpr size_t kTableSize = 65536;

// Structures such as machines have them: of several types, most with two or three strings of a few characters.
std::vector<unsigned char> MakeTable(size_t& structures) {
  constexpr unsigned char kTypes[] = {0, 1, 2, 3, 4, 7, 7, 7, 8, 8, 8, 9, 9, 11, 16, 17, 17, 17, 17, 20, 41, 126};
  std::vector<unsigned char> table;
  structures = 0;
  while (table.size() < kTableSize - 256) {
    const size_t body = 4 + structures % 7 * 5;
    table.insert(table.end(), {kTypes[structures % std::size(kTypes)], static_cast<unsigned char>(4 + body), 0, 0});
    table.insert(table.end(), body, static_cast<unsigned char>(structures));
    for (size_t i = 0; i < structures % 4; ++i) {
      const std::string text = "String of slot " + std::to_string(structures);
      table.insert(table.end(), text.begin(), text.end());
      table.push_back(0);
    }
    table.insert(table.end(), structures % 4 == 0 ? 2 : 1, 0);
    ++structures;
  }
  table.insert(table.end(), {127, 4, 0, 0, 0, 0});
  ++structures;
  return table;
}

void SetPerStructure(benchmark::State& state, size_t structures) {
  state.counters["structures"] = static_cast<double>(structures);
  state.counters["per_structure"] =
      benchmark::Counter(static_cast<double>(structures) * static_cast<double>(state.iterations()),
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void WalkTable(benchmark::State& state) {
  size_t structures = 0;
  const std::vector<unsigned char> table = MakeTable(structures);
  for (auto _ : state) {
    SmbiosStructureIndex index;
    unsigned int walked = 0;
    std::string error;
    if (!WalkSmbiosStructures(table, index, walked, error) || walked != structures) state.SkipWithError("walk failed");
    benchmark::DoNotOptimize(index);
  }
  SetPerStructure(state, structures);
}
BENCHMARK(WalkTable);

void FloorOnePass(benchmark::State& state) {
  size_t structures = 0;
  const std::vector<unsigned char> table = MakeTable(structures);
  for (auto _ : state) {
    size_t nuls = 0;
    for (const unsigned char byte : table) {
      nuls += byte == 0;
      benchmark::DoNotOptimize(nuls);  // byte by byte, as a walk must look at them
    }
  }
  SetPerStructure(state, structures);
}
BENCHMARK(FloorOnePass);

}  // namespace

BENCHMARK_MAIN();
