// One sample of all kinds beside its floor: the same files opened, read and closed, and the link speeds asked, without
// looking at what comes back. Then the growth with the number of interfaces, from /proc/net/dev text alone and
// (as root) with real interfaces in a network namespace of the benchmark.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include "perfmon/net_dev.h"
#include "perfmon/perf_mon.h"
#include "perfmon/sample_text.h"
#include "platform/unique_fd.h"

namespace {

constexpr unsigned int kAllKinds = CPerfMon::systemCpu | CPerfMon::perCpu | CPerfMon::network | CPerfMon::memory;

std::string NetDevText(int interfaces) {
  std::string text = "Inter-|   Receive\n face |bytes\n";
  for (int i = 0; i < interfaces; ++i) {
    text += "  eth" + std::to_string(i) + ": 18446031     456    0    0    0     0          0         0";
    text += "    25106     309    0    0    0     0       0          0\n";
  }
  return text;
}

size_t ReadAll(const char* path, std::vector<char>& buffer) {
  const UniqueFd file(::open(path, O_RDONLY | O_CLOEXEC));
  size_t size = 0;
  for (ssize_t got = 1; got > 0; size += static_cast<size_t>(got))
    got = ::read(file.Get(), buffer.data() + size, buffer.size() - size);
  return size;
}

// The interfaces that a sample asks for their speed.
std::vector<std::string> SampledNames(std::string_view text) {
  std::vector<std::string> names;
  for (NetDevLine line; TakeSampledInterface(text, line);)
    names.emplace_back(line.name);
  return names;
}

class BareReads {
 public:
  BareReads() : m_Buffer(size_t{1} << 20) {
    m_Names = SampledNames(std::string_view(m_Buffer.data(), ReadAll(kProcNetDev, m_Buffer)));
  }

  void Run() {
    for (const char* path : {"/proc/meminfo", "/proc/stat", kProcNetDev})
      benchmark::DoNotOptimize(ReadAll(path, m_Buffer));
    const UniqueFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    for (const std::string& name : m_Names)
      benchmark::DoNotOptimize(ReadLinkSpeed(socket.Get(), name));
  }

  size_t Interfaces() const { return m_Names.size(); }

 private:
  std::vector<char> m_Buffer;
  std::vector<std::string> m_Names;
};

void Floor(benchmark::State& state) {
  BareReads reads;
  for (auto _ : state)
    reads.Run();
  state.counters["interfaces"] = static_cast<double>(reads.Interfaces());
}

void Sample(benchmark::State& state) {
  CPerfMon monitor(60);
  if (!monitor.StartMonitoring(static_cast<int>(kAllKinds), 0)) state.SkipWithError("not started");
  for (auto _ : state)
    monitor.SnapshotData(kAllKinds);
}

void ParseNetDev(benchmark::State& state) {
  const std::string text = NetDevText(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    std::string_view rest = text;
    NetCounters counters;
    for (NetDevLine line; TakeSampledInterface(rest, line);)
      benchmark::DoNotOptimize(ParseNumbers(line.counters, counters));
  }
}

void Query(benchmark::State& state) {
  CPerfMon monitor(static_cast<unsigned int>(state.range(0)));
  monitor.StartMonitoring(CPerfMon::memory, 0);
  for (int64_t i = 0; i < state.range(0); ++i)
    monitor.SnapshotData(CPerfMon::memory);
  unsigned char percent = 0;
  for (auto _ : state)
    monitor.GetAveragePercent(CPerfMon::memoryPhysical, percent, 0);
}

// Makes pairs of virtual interfaces in a network namespace until there are this many that a sample looks at. They stay,
// so the benchmarks ask for growing numbers.
bool MakeInterfaces(int wanted) {
  static int made = -1;
  if (made < 0 && ::unshare(CLONE_NEWNET) != 0) return false;
  made = made < 0 ? 0 : made;
  // The name of the other end is not one that is sampled.
  for (; made < wanted; ++made) {
    const std::string number = std::to_string(made);
    const std::string command = "ip link add eth" + number + " type veth peer name v" + number + " 2>/dev/null";
    if (std::system(command.c_str()) != 0) return false;
  }
  return true;
}

template <void (*Body)(benchmark::State&)>
void WithInterfaces(benchmark::State& state) {
  if (!MakeInterfaces(static_cast<int>(state.range(0)))) {
    state.SkipWithError("needs root and ip");
    return;
  }
  Body(state);
}

uint64_t ResidentKb() {
  std::ifstream statm("/proc/self/statm");
  uint64_t size = 0;
  uint64_t resident = 0;
  statm >> size >> resident;
  return resident * static_cast<uint64_t>(::sysconf(_SC_PAGESIZE)) / 1024;
}

// Growth of the resident memory over a million samples, beyond what the first ten thousand settled at.
void MillionSamples(benchmark::State& state) {
  CPerfMon monitor(60);
  monitor.StartMonitoring(static_cast<int>(kAllKinds), 0);
  for (auto _ : state) {
    for (int i = 0; i < 10000; ++i)
      monitor.SnapshotData(kAllKinds);
    const uint64_t before = ResidentKb();
    for (int i = 0; i < 1000000; ++i)
      monitor.SnapshotData(kAllKinds);
    state.counters["growthKb"] = static_cast<double>(ResidentKb()) - static_cast<double>(before);
  }
}

double CpuSeconds() {
  timespec used{};
  ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
  return static_cast<double>(used.tv_sec) + 1e-9 * static_cast<double>(used.tv_nsec);
}

constexpr unsigned int kShareSeconds = 20;

// Share of one processor that monitoring once a second takes, the wake-ups of the thread included.
void MonitoringShare(benchmark::State& state) {
  CPerfMon monitor(60);
  monitor.StartMonitoring(static_cast<int>(kAllKinds), 1000);
  for (auto _ : state) {
    const double before = CpuSeconds();
    ::sleep(kShareSeconds);
    state.counters["cpuPercent"] = 100 * (CpuSeconds() - before) / kShareSeconds;
  }
}

// The same for the bare reads: after a second, caches are cold.
void FloorShare(benchmark::State& state) {
  BareReads reads;
  for (auto _ : state) {
    const double before = CpuSeconds();
    for (unsigned int second = 0; second < kShareSeconds; ++second) {
      ::sleep(1);
      reads.Run();
    }
    state.counters["cpuPercent"] = 100 * (CpuSeconds() - before) / kShareSeconds;
  }
}

}  // namespace

BENCHMARK(Floor);
BENCHMARK(Sample);
BENCHMARK(ParseNetDev)->Arg(1)->Arg(16)->Arg(128);
BENCHMARK(Query)->Arg(1)->Arg(60)->Arg(3600);
BENCHMARK(FloorShare)->Iterations(1)->UseRealTime();
BENCHMARK(MonitoringShare)->Iterations(1)->UseRealTime();
BENCHMARK(MillionSamples)->Iterations(1)->Unit(benchmark::kSecond);
BENCHMARK(WithInterfaces<Floor>)->Arg(1);
BENCHMARK(WithInterfaces<Sample>)->Arg(1);
BENCHMARK(WithInterfaces<Floor>)->Arg(16);
BENCHMARK(WithInterfaces<Sample>)->Arg(16);
BENCHMARK(WithInterfaces<Floor>)->Arg(128);
BENCHMARK(WithInterfaces<Sample>)->Arg(128);

BENCHMARK_MAIN();
