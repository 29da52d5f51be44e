// Stands in for the coverage-guided engine: runs a fuzz target over its seeds and over a fixed series of mutations of
// them, the same in every run. Usage: fuzz_<name> CORPUS_DIRECTORY [MUTATIONS]

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

using Bytes = std::vector<uint8_t>;

std::vector<Bytes> ReadSeeds(const char* directory) {
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::directory_iterator(directory))
    files.push_back(entry.path());
  std::sort(files.begin(), files.end());
  std::vector<Bytes> seeds(1);  // the empty input belongs to every corpus
  for (const auto& file : files) {
    std::ifstream stream(file, std::ios::binary);
    seeds.emplace_back(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
  }
  return seeds;
}

// Flips, cuts, repeats and overwrites a few places.
Bytes Mutate(Bytes input, std::mt19937& random) {
  const auto below = [&random](size_t limit) { return static_cast<size_t>(random()) % std::max<size_t>(limit, 1); };
  for (size_t step = 1 + below(6); step > 0; --step) {
    const size_t place = below(input.size());
    switch (below(5)) {
      case 0:
        if (!input.empty()) input[place] = static_cast<uint8_t>(input[place] ^ (1U << below(8)));
        break;
      case 1:
        if (!input.empty()) input[place] = static_cast<uint8_t>(random());
        break;
      case 2:
        input.resize(place);
        break;
      case 3:
        input.insert(input.begin() + static_cast<std::ptrdiff_t>(place), 1 + below(9), static_cast<uint8_t>(random()));
        break;
      default: {
        const Bytes copy(input.begin() + static_cast<std::ptrdiff_t>(place), input.end());
        input.insert(input.end(), copy.begin(), copy.begin() + static_cast<std::ptrdiff_t>(below(copy.size())));
      }
    }
  }
  return input;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s CORPUS_DIRECTORY [MUTATIONS]\n", argv[0]);
    return 2;
  }
  const std::vector<Bytes> seeds = ReadSeeds(argv[1]);
  const int mutations = argc > 2 ? std::atoi(argv[2]) : 20000;
  std::mt19937 random(1);
  for (const Bytes& seed : seeds)
    LLVMFuzzerTestOneInput(seed.data(), seed.size());
  for (int run = 0; run < mutations; ++run) {
    const Bytes input = Mutate(seeds[static_cast<size_t>(random()) % seeds.size()], random);
    LLVMFuzzerTestOneInput(input.data(), input.size());
  }
  std::printf("%zu seeds and %d mutations without a finding\n", seeds.size(), mutations);
  return 0;
}
