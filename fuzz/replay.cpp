// Stands in for the coverage-guided engine: runs a fuzz target over its seeds, over long inputs made of them and over a
// fixed series of mutations of them, the same in every run. An input that takes far too much of the processor's time is
// a finding, too: the time of a parser grows with its input and not with the square. Usage: fuzz_<name>
// CORPUS_DIRECTORY [MUTATIONS]

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

using Bytes = std::vector<uint8_t>;

constexpr double kMostSeconds = 5;              // hundreds of times what the slowest input takes
constexpr size_t kLongSizes[] = {4096, 65536};  // those are the largest inputs that targets take

double ProcessorSeconds() {
  timespec time{};
  ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

double s_Slowest = 0;

void Run(const Bytes& input) {
  const double start = ProcessorSeconds();
  LLVMFuzzerTestOneInput(input.data(), input.size());
  const double seconds = ProcessorSeconds() - start;
  s_Slowest = std::max(s_Slowest, seconds);
  if (seconds <= kMostSeconds) return;
  std::fprintf(stderr, "an input of %zu bytes takes %.1f s\n", input.size(), seconds);
  std::abort();
}

// The input over and over, that long.
Bytes Repeated(const Bytes& input, size_t size) {
  Bytes repeated(size);
  for (size_t place = 0; place < size; ++place)
    repeated[place] = input[place % input.size()];
  return repeated;
}

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
  for (const Bytes& seed : seeds) {
    Run(seed);
    if (seed.empty()) continue;
    for (const size_t size : kLongSizes)
      Run(Repeated(seed, size));
  }
  for (int run = 0; run < mutations; ++run)
    Run(Mutate(seeds[static_cast<size_t>(random()) % seeds.size()], random));
  std::printf("%zu seeds and %d mutations without a finding, the slowest took %.1f ms\n", seeds.size(), mutations,
              s_Slowest * 1000);
  return 0;
}
