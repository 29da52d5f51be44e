#include "ravctl/hardware/perf_sampler.h"

#include <sys/socket.h>

#include <algorithm>
#include <chrono>

#include "perfmon/net_dev.h"
#include "perfmon/sample_text.h"
#include "platform/descriptor_io.h"
#include "ravctl/answer/json.h"
#include "ravctl/base/error.h"
#include "ravctl/base/text.h"
#include "ravctl/base/times.h"

namespace ravctl {

namespace {

constexpr const char* kProcMemInfo = "/proc/meminfo";
constexpr unsigned int kMonitored = CPerfMon::systemCpu | CPerfMon::memory;
constexpr uint64_t kMostPercent = 100;

uint64_t NowMs() {
  using namespace std::chrono;
  return static_cast<uint64_t>(duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count());
}

template <typename T>
Json OrNull(const std::optional<T>& value) {
  return value ? Json(*value) : Json();
}

template <typename Record, typename Value>
Json OrNull(const std::optional<Record>& record, Value Record::*member) {
  return record ? Json((*record).*member) : Json();
}

void AddRates(const _PerfDataNetwork& record, NetworkLoad& load) {
  load.received = record.received;
  load.sent = record.sent;
  if (!load.speed) return;
  const auto percent = [&record](uint128 bytes) {
    return static_cast<int>(Saturate(std::min<uint128>((bytes * 100 + record.speed / 2) / record.speed, kMostPercent)));
  };
  load.percentReceived = percent(record.received);
  load.percentSent = percent(record.sent);
  load.percent = percent(uint128{record.received} + record.sent);
}

}  // namespace

Json PerfSample::ToJson() const {
  Json interfaces = Json::array();
  for (const NetworkLoad& load : network) {
    interfaces.push_back({{"name", load.name},
                          {"percent", OrNull(load.percent)},
                          {"received_percent", OrNull(load.percentReceived)},
                          {"sent_percent", OrNull(load.percentSent)},
                          {"received_bytes_per_s", OrNull(load.received)},
                          {"sent_bytes_per_s", OrNull(load.sent)},
                          {"speed_bytes_per_s", OrNull(load.speed)}});
  }
  return {{"time", time},
          {"interval_ms", intervalMs},
          {"cpu",
           {{"used_percent", OrNull(cpu, &CpuLoad::used)},
            {"user_percent", OrNull(cpu, &CpuLoad::user)},
            {"kernel_percent", OrNull(cpu, &CpuLoad::kernel)},
            {"idle_percent", OrNull(cpu, &CpuLoad::idle)}}},
          {"memory",
           {{"physical_percent", OrNull(physical, &MemoryUse::percent)},
            {"physical_used", OrNull(physical, &MemoryUse::used)},
            {"physical_total", OrNull(physical, &MemoryUse::total)},
            {"virtual_percent", OrNull(virtualMemory, &MemoryUse::percent)},
            {"virtual_used", OrNull(virtualMemory, &MemoryUse::used)},
            {"virtual_total", OrNull(virtualMemory, &MemoryUse::total)}}},
          {"network", interfaces}};
}

void RequireInterfaces(const std::vector<std::string>& wanted, const PerfSample& sample) {
  std::vector<std::string> known;
  for (const NetworkLoad& load : sample.network)
    known.push_back(load.name);
  for (const std::string& name : wanted) {
    if (std::ranges::count(known, name) > 0) continue;
    throw CommandError(ExitCode::kNothingOrDifferent, "no such interface among those that are sampled", name,
                       DidYouMean(name, known, "see ravctl perf"));
  }
}

void KeepInterfaces(const std::vector<std::string>& wanted, PerfSample& sample) {
  if (wanted.empty()) return;
  std::erase_if(sample.network,
                [&wanted](const NetworkLoad& load) { return std::ranges::count(wanted, load.name) == 0; });
}

// With an interval of 0 the monitor's thread ends at once, and samples are taken when they are asked for.
PerfSampler::PerfSampler() : m_Monitor(1) {
  if (!m_Monitor.StartMonitoring(static_cast<int>(kMonitored), 0)) {
    throw CommandError(ExitCode::kInternal, "the performance monitor does not start", "thread", "try again");
  }
  PerfSample first;
  ReadNetwork(first);
}

PerfSample PerfSampler::Take() {
  PerfSample sample;
  m_Monitor.SnapshotData(kMonitored);
  sample.time = LocalTimeNow();
  ReadCpu(sample);
  ReadMemory(sample);
  ReadNetwork(sample);
  return sample;
}

void PerfSampler::ReadCpu(PerfSample& sample) {
  const CpuLoad load{.used = Percent(CPerfMon::cpuUsed, 0),
                     .user = Percent(CPerfMon::cpuUser, 0),
                     .kernel = Percent(CPerfMon::cpuKernel, 0),
                     .idle = Percent(CPerfMon::cpuIdle, 0)};
  // Neither used nor idle: nothing was measured.
  if (load.used + load.idle > 0) sample.cpu = load;
}

void PerfSampler::ReadMemory(PerfSample& sample) {
  std::string text;
  MemInfo info{};
  if (!OpenAndReadToEnd(kProcMemInfo, text) || !ParseMemInfo(text, info)) return;
  const _PerfDataMemory record = MakeMemoryRecord(info);
  sample.physical = {Percent(CPerfMon::memoryPhysical, 0), record.totalPhysical, record.usedPhysical};
  sample.virtualMemory = {Percent(CPerfMon::memoryVirtual, 0), record.totalVirtual, record.usedVirtual};
}

// The monitor's own percentage of a link sets the bytes of a second against what the link carries in the whole
// interval, so it holds for intervals of a second alone.
void PerfSampler::ReadNetwork(PerfSample& sample) {
  std::string text;
  OpenAndReadToEnd(kProcNetDev, text);
  const uint64_t nowMs = NowMs();
  if (!m_Socket) m_Socket.Reset(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  std::map<std::string, NetInterfaceState, std::less<>> interfaces;
  std::string_view rest = text;
  for (NetDevLine line; TakeSampledInterface(rest, line);) {
    NetworkLoad load{.name = std::string(line.name)};
    NetInterfaceState state{.name = load.name, .sampleTimeMs = nowMs};
    if (ParseNumbers(line.counters, state.counters) != static_cast<int>(state.counters.size())) continue;
    const uint64_t speed = ReadLinkSpeed(m_Socket.Get(), line.name);
    if (speed != kUnknownSpeed) load.speed = speed;
    _PerfDataNetwork record{};
    if (MakeNetworkRecord(m_Interfaces[load.name], nowMs, state.counters, speed, record)) AddRates(record, load);
    interfaces[load.name] = state;
    sample.network.push_back(load);
  }
  m_Interfaces = std::move(interfaces);
  if (m_LastMs != 0 && nowMs > m_LastMs) sample.intervalMs = nowMs - m_LastMs;
  m_LastMs = nowMs;
}

int PerfSampler::Percent(CPerfMon::PerfMonitorValue value, int instance) {
  unsigned char percent = 0;
  m_Monitor.GetCurrentPercent(value, percent, instance);
  return percent;
}

}  // namespace ravctl
