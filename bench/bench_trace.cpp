// What an entry of the trace costs, beside the floor and, where it is installed, a peer's synchronous file sink.
//
// The files lie in memory, so that no disk is measured. Every figure is the time of one entry of about 100 bytes.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <string>

#include "trace/debug.h"

#ifdef RAVD_HAVE_SPDLOG
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#endif

namespace {

constexpr const char* kDirectory = "/dev/shm/ravd-bench-trace";
constexpr size_t kRingSize = 1024 * 1024;

#define MESSAGE "RAVD-MAIN: message %d of %s", 42, "a caller"

// Access to the switch of the memory column, which only a configuration file sets otherwise.
class BenchDebug : public CDebug {
 public:
  void SetMemoryColumn(bool on) { m_Settings.memoryTracesFlag = on ? 1 : 0; }
};
BenchDebug& Trace() {
  static BenchDebug* instance = [] {
    std::filesystem::create_directories(kDirectory);
    ::setenv("QN_LOG_RINGBUF_DIR", kDirectory, 1);
    ::setenv("QN_LOG_DEBUG_LEVEL", "3", 1);
    ::setenv("TraceFileLimit", "1", 1);
    ::setenv("QN_LOG_RINGBUF_WEIGHT", "1", 1);
    auto* debug = new BenchDebug;
    debug->Init("bench");
    return debug;
  }();
  return *instance;
}

void BM_LevelOff(benchmark::State& state) {
  Debug.ForceMaxDebug(false);
  for (auto _ : state) {
    TRACE(1, MESSAGE);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_LevelOff);

void BM_LevelAboveCurrent(benchmark::State& state) {
  BenchDebug& debug = Trace();
  for (auto _ : state) {
    if (debug.m_TraceActive.load(std::memory_order_relaxed)) debug.Print(6, MESSAGE);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_LevelAboveCurrent);

// Reads the clock, formats header and message the plain way and copies them into a shared mapping under a mutex.
class Floor {
 public:
  Floor() {
    const int fd = ::open("/dev/shm/ravd-bench-floor", O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (::ftruncate(fd, kRingSize) != 0) std::abort();
    m_Mapping = static_cast<char*>(::mmap(nullptr, kRingSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    std::memset(m_Mapping, '_', kRingSize);
    ::close(fd);
    m_Statm = ::open("/proc/self/statm", O_RDONLY | O_CLOEXEC);
  }

  __attribute__((format(printf, 3, 4))) void Print(bool memory, const char* fmt, ...) {
    const std::lock_guard lock(m_Mutex);
    timeval now{};
    gettimeofday(&now, nullptr);
    if (now.tv_sec != m_Second) {
      tm local{};
      localtime_r(&now.tv_sec, &local);
      strftime(m_SecondText, sizeof m_SecondText, "%F %H:%M:%S", &local);
      m_Second = now.tv_sec;
    }
    char statm[128] = "";
    if (memory && ::pread(m_Statm, statm, sizeof statm, 0) <= 0) std::abort();
    char line[1312];
    int length = std::snprintf(line, 128, "%s.%03d [%08X] %-13s ", m_SecondText, static_cast<int>(now.tv_usec / 1000),
                               static_cast<unsigned int>(pthread_self()), "bench");
    va_list args;
    va_start(args, fmt);
    length += std::vsnprintf(line + length, 1025, fmt, args);
    va_end(args);
    line[length++] = '\n';
    if (m_Offset + static_cast<size_t>(length) + 16 > kRingSize) m_Offset = 0;
    std::memcpy(m_Mapping + m_Offset, line, static_cast<size_t>(length));
    m_Offset += static_cast<size_t>(length);
    std::memcpy(m_Mapping + m_Offset, "## TRACE-END ##\n", 16);
  }

 private:
  std::mutex m_Mutex;
  char* m_Mapping = nullptr;
  size_t m_Offset = 0;
  time_t m_Second = 0;
  char m_SecondText[24] = "";
  int m_Statm = -1;
};

Floor& TheFloor() {
  static Floor floor;
  return floor;
}

void BM_Floor(benchmark::State& state) {
  for (auto _ : state)
    TheFloor().Print(state.range(0) != 0, MESSAGE);
}
BENCHMARK(BM_Floor)->ArgName("memory")->Arg(0)->Arg(1);

void BM_RingEntry(benchmark::State& state) {
  BenchDebug& debug = Trace();
  if (state.thread_index() == 0) debug.SetMemoryColumn(state.range(0) != 0);
  for (auto _ : state)
    debug.Print(1, MESSAGE);
}
BENCHMARK(BM_RingEntry)->ArgName("memory")->Arg(0)->Arg(1)->Threads(1)->Threads(8)->UseRealTime();

void BM_ReadStatm(benchmark::State& state) {
  const int fd = ::open("/proc/self/statm", O_RDONLY | O_CLOEXEC);
  char text[128];
  for (auto _ : state)
    benchmark::DoNotOptimize(::pread(fd, text, sizeof text, 0));
  ::close(fd);
}
BENCHMARK(BM_ReadStatm);

void BM_FprintfAndFlush(benchmark::State& state) {
  FILE* file = std::fopen((std::string(kDirectory) + "/plain").c_str(), "w");
  const std::string line(100, 'x');
  for (auto _ : state) {
    std::fprintf(file, "%s\n", line.c_str());
    std::fflush(file);
    if (std::ftell(file) > 50000) std::rewind(file);
  }
  std::fclose(file);
}
BENCHMARK(BM_FprintfAndFlush);

void BM_LogFileEntry(benchmark::State& state) {
  BenchDebug& debug = Trace();
  debug.SetMemoryColumn(false);
  debug.SetTarget(CDebug::kTargetLogFile);
  for (auto _ : state)
    debug.Print(1, MESSAGE);
  debug.SetTarget(CDebug::kTargetRingBuffer);
}
BENCHMARK(BM_LogFileEntry);

void BM_CreateStartUpRing(benchmark::State& state) {
  for (auto _ : state) {
    BenchDebug debug;
    if (!debug.Init("start")) state.SkipWithError("no ring buffer");
  }
}
BENCHMARK(BM_CreateStartUpRing)->Unit(benchmark::kMicrosecond);

void BM_OneWriteOf4MiB(benchmark::State& state) {
  const std::string bytes(4 * kRingSize, '_');
  const std::string path = std::string(kDirectory) + "/four";
  for (auto _ : state) {
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (::write(fd, bytes.data(), bytes.size()) < 0) std::abort();
    ::close(fd);
  }
}
BENCHMARK(BM_OneWriteOf4MiB)->Unit(benchmark::kMicrosecond);

#ifdef RAVD_HAVE_SPDLOG
void BM_PeerFileSink(benchmark::State& state) {
  auto logger = spdlog::get("peer");
  if (logger == nullptr) logger = spdlog::basic_logger_mt("peer", std::string(kDirectory) + "/peer", true);
  logger->flush_on(state.range(0) != 0 ? spdlog::level::info : spdlog::level::off);
  for (auto _ : state)
    logger->info("RAVD-MAIN: message {} of {}", 42, "a caller");
}
BENCHMARK(BM_PeerFileSink)->ArgName("flushed")->Arg(0)->Arg(1);
#endif

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  std::error_code ignored;
  std::filesystem::remove_all(kDirectory, ignored);
  std::filesystem::remove("/dev/shm/ravd-bench-floor", ignored);
  return 0;
}
