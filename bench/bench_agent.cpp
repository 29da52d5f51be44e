// What libravagent costs a module or a program: loading it, beside a library without content, and the memory that is
// the process's own then.

#include <benchmark/benchmark.h>
#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

namespace {

void Load(benchmark::State& state, const char* path) {
  for (auto _ : state) {
    void* library = ::dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
      state.SkipWithError(::dlerror());
      return;
    }
    ::dlclose(library);
  }
}

// kB that the process alone has of the library, by its mappings.
double PrivateDirty(const std::string& name) {
  std::ifstream maps("/proc/self/smaps");
  bool isOurs = false;
  double sum = 0;
  for (std::string line; std::getline(maps, line);) {
    if (line.find('-') < line.find(' ') && line.find(':') > line.find(' '))
      isOurs = line.find(name) != std::string::npos;
    double kilobytes = 0;
    if (isOurs && std::sscanf(line.c_str(), "Private_Dirty: %lf", &kilobytes) == 1) sum += kilobytes;
  }
  return sum;
}

void BM_LoadEmptyLibrary(benchmark::State& state) {
  Load(state, RAVD_EMPTY_LIBRARY);
}
BENCHMARK(BM_LoadEmptyLibrary)->Unit(benchmark::kMicrosecond);

void BM_LoadAgentLibrary(benchmark::State& state) {
  Load(state, RAVD_AGENT_LIBRARY);
  void* library = ::dlopen(RAVD_AGENT_LIBRARY, RTLD_NOW | RTLD_LOCAL);
  state.counters["private_dirty_kB"] = PrivateDirty("libravagent");
  if (library != nullptr) ::dlclose(library);
}
BENCHMARK(BM_LoadAgentLibrary)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
