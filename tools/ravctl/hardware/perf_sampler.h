#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "perfmon/perf_mon.h"
#include "platform/unique_fd.h"
#include "ravctl/answer/output.h"

namespace ravctl {

// Throws CommandError when an interface that was asked for is not among those of the sample, and drops the others; all
// stay when none was asked for.
void KeepInterfaces(const std::vector<std::string>& wanted, Json& sample);

// Takes samples through the performance monitor of the library, which answers percentages, and the amounts behind them
// and the traffic through the readers that the monitor stands on. One thread; each sample is made in the call.
//
// A sample is the load of the machine over the time since the one before, as ravctl schema perf-sample describes it;
// what cannot be read is null.
class PerfSampler {
 public:
  // Reads for the first time, which takes a quarter of a second: the first sample covers the time from its end on.
  // Throws CommandError when the monitor cannot be started.
  PerfSampler();

  Json Take();

 private:
  Json ReadCpu();
  Json ReadMemory();
  Json ReadNetwork(uint64_t nowMs);
  unsigned int Percent(CPerfMon::PerfMonitorValue value);

  CPerfMon m_Monitor;
  UniqueFd m_Socket;
  std::map<std::string, NetInterfaceState, std::less<>> m_Interfaces;  // as of the sample before
  uint64_t m_LastMs = 0;
};

}  // namespace ravctl
