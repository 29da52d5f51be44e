#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "perfmon/perf_mon.h"
#include "platform/unique_fd.h"
#include "ravctl/answer/output.h"

namespace ravctl {

struct CpuLoad {
  int used = 0, user = 0, kernel = 0, idle = 0;  // percent
};

struct MemoryUse {
  int percent = 0;
  uint64_t total = 0, used = 0;  // bytes
};

struct NetworkLoad {
  std::string name;
  // Bytes per second; none when the counters could not be compared.
  std::optional<uint64_t> received = {}, sent = {};
  std::optional<uint64_t> speed = {};  // bytes per second that the link carries, where it tells
  // Percent of what the link carries, where it tells.
  std::optional<int> percent = {}, percentReceived = {}, percentSent = {};
};

// The load of the machine over the time since the sample before. What cannot be read is missing.
struct PerfSample {
  std::string time;  // local
  uint64_t intervalMs = 0;
  std::optional<CpuLoad> cpu;
  std::optional<MemoryUse> physical, virtualMemory;
  std::vector<NetworkLoad> network;

  Json ToJson() const;
};

// Throws CommandError when an interface that was asked for is not among those of the sample.
void RequireInterfaces(const std::vector<std::string>& wanted, const PerfSample& sample);
// Drops the interfaces that were not asked for. Nothing wanted: all stay.
void KeepInterfaces(const std::vector<std::string>& wanted, PerfSample& sample);

// Takes samples through the performance monitor of the library, which answers percentages, and the amounts behind them
// and the traffic through the readers that the monitor stands on. One thread; each sample is made in the call.
class PerfSampler {
 public:
  // Reads for the first time, which takes a quarter of a second: the first sample covers the time from its end on.
  // Throws CommandError when the monitor cannot be started.
  PerfSampler();

  PerfSample Take();

 private:
  void ReadCpu(PerfSample& sample);
  void ReadMemory(PerfSample& sample);
  void ReadNetwork(PerfSample& sample);
  int Percent(CPerfMon::PerfMonitorValue value, int instance);

  CPerfMon m_Monitor;
  UniqueFd m_Socket;
  std::map<std::string, NetInterfaceState, std::less<>> m_Interfaces;  // as of the sample before
  uint64_t m_LastMs = 0;
};

}  // namespace ravctl
