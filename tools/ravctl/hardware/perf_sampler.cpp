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

Json InterfaceLoad(std::string_view name) {
  return {{"name", name},
          {"percent", nullptr},
          {"received_percent", nullptr},
          {"sent_percent", nullptr},
          {"received_bytes_per_s", nullptr},
          {"sent_bytes_per_s", nullptr},
          {"speed_bytes_per_s", nullptr}};
}

// The percentages are those of what the link carries, where it tells.
void AddRates(const _PerfDataNetwork& record, Json& load) {
  load["received_bytes_per_s"] = record.received;
  load["sent_bytes_per_s"] = record.sent;
  if (load["speed_bytes_per_s"].is_null()) return;
  const auto percent = [&record](uint128 bytes) {
    return Saturate(std::min<uint128>((bytes * 100 + record.speed / 2) / record.speed, kMostPercent));
  };
  load["received_percent"] = percent(record.received);
  load["sent_percent"] = percent(record.sent);
  load["percent"] = percent(uint128{record.received} + record.sent);
}

}  // namespace

void KeepInterfaces(const std::vector<std::string>& wanted, Json& sample) {
  std::vector<std::string> known;
  for (const Json& load : sample["network"])
    known.push_back(load["name"]);
  for (const std::string& name : wanted) {
    if (std::ranges::count(known, name) > 0) continue;
    throw CommandError(ExitCode::kNothingOrDifferent, "no such interface among those that are sampled", name,
                       DidYouMean(name, known, "see ravctl perf"));
  }
  if (wanted.empty()) return;
  Json kept = Json::array();
  for (const Json& load : sample["network"]) {
    if (std::ranges::count(wanted, load["name"].get<std::string>()) > 0) kept.push_back(load);
  }
  sample["network"] = std::move(kept);
}

// With an interval of 0 the monitor's thread ends at once, and samples are taken when they are asked for.
PerfSampler::PerfSampler() : m_Monitor(1) {
  if (!m_Monitor.StartMonitoring(static_cast<int>(kMonitored), 0)) {
    throw CommandError(ExitCode::kInternal, "the performance monitor does not start", "thread", "try again");
  }
  m_LastMs = NowMs();
  ReadNetwork(m_LastMs);
}

Json PerfSampler::Take() {
  m_Monitor.SnapshotData(kMonitored);
  const uint64_t nowMs = NowMs();
  Json sample = {{"time", LocalTimeNow()},
                 {"interval_ms", nowMs - std::min(m_LastMs, nowMs)},
                 {"cpu", ReadCpu()},
                 {"memory", ReadMemory()},
                 {"network", ReadNetwork(nowMs)}};
  m_LastMs = nowMs;
  return sample;
}

Json PerfSampler::ReadCpu() {
  Json load = {{"used_percent", Percent(CPerfMon::cpuUsed)},
               {"user_percent", Percent(CPerfMon::cpuUser)},
               {"kernel_percent", Percent(CPerfMon::cpuKernel)},
               {"idle_percent", Percent(CPerfMon::cpuIdle)}};
  // Neither used nor idle: nothing was measured.
  const bool isMeasured = load["used_percent"] != 0 || load["idle_percent"] != 0;
  for (Json& percent : load)
    if (!isMeasured) percent = nullptr;
  return load;
}

Json PerfSampler::ReadMemory() {
  std::string text;
  MemInfo info{};
  const bool isThere = OpenAndReadToEnd(kProcMemInfo, text) && ParseMemInfo(text, info);
  const _PerfDataMemory record = isThere ? MakeMemoryRecord(info) : _PerfDataMemory{};
  const auto known = [isThere](uint64_t value) { return isThere ? Json(value) : Json(); };
  return {{"physical_percent", known(Percent(CPerfMon::memoryPhysical))},
          {"physical_used", known(record.usedPhysical)},
          {"physical_total", known(record.totalPhysical)},
          {"virtual_percent", known(Percent(CPerfMon::memoryVirtual))},
          {"virtual_used", known(record.usedVirtual)},
          {"virtual_total", known(record.totalVirtual)}};
}

// The monitor's own percentage of a link sets the bytes of a second against what the link carries in the whole
// interval, so it holds for intervals of a second alone.
Json PerfSampler::ReadNetwork(uint64_t nowMs) {
  std::string text;
  OpenAndReadToEnd(kProcNetDev, text);
  if (!m_Socket) m_Socket.Reset(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  std::map<std::string, NetInterfaceState, std::less<>> interfaces;
  Json loads = Json::array();
  std::string_view rest = text;
  for (NetDevLine line; TakeSampledInterface(rest, line);) {
    const std::string name(line.name);
    Json load = InterfaceLoad(name);
    NetInterfaceState state{.name = name, .sampleTimeMs = nowMs};
    if (ParseNumbers(line.counters, state.counters) != static_cast<int>(state.counters.size())) continue;
    const uint64_t speed = ReadLinkSpeed(m_Socket.Get(), line.name);
    if (speed != kUnknownSpeed) load["speed_bytes_per_s"] = speed;
    _PerfDataNetwork record{};
    if (MakeNetworkRecord(m_Interfaces[name], nowMs, state.counters, speed, record)) AddRates(record, load);
    interfaces[name] = state;
    loads.push_back(std::move(load));
  }
  m_Interfaces = std::move(interfaces);
  return loads;
}

unsigned int PerfSampler::Percent(CPerfMon::PerfMonitorValue value) {
  unsigned char percent = 0;
  m_Monitor.GetCurrentPercent(value, percent, 0);
  return percent;
}

}  // namespace ravctl
