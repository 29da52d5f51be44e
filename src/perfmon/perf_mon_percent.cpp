#include <algorithm>
#include <bit>
#include <optional>

#include "perfmon/perf_mon.h"

namespace {

using Type = CPerfMon::PerfMonitorType;

// Positions in the records and their bits in a numerator.
enum SystemField : uint8_t { kTotal = 0, kUserBit = 2, kKernelBit = 4, kIdleBit = 8 };
enum MemoryField : uint8_t { kTotalVirtual = 0, kUsedVirtualBit = 2, kTotalPhysical = 2, kUsedPhysicalBit = 8 };
enum NetworkField : uint8_t { kCapacity = 1, kReceivedBit = 4, kSentBit = 8 };

struct ValueRow {
  CPerfMon::PerfMonitorValue value;
  Type type;
  PercentRule rule;
};

constexpr auto kValueRows = std::to_array<ValueRow>({
    {CPerfMon::cpuUsed, CPerfMon::systemCpu, {kUserBit | kKernelBit, kTotal}},
    {CPerfMon::cpuIdle, CPerfMon::systemCpu, {kIdleBit, kTotal}},
    {CPerfMon::cpuUser, CPerfMon::systemCpu, {kUserBit, kTotal}},
    {CPerfMon::cpuKernel, CPerfMon::systemCpu, {kKernelBit, kTotal}},
    {CPerfMon::perCpuUsed, CPerfMon::perCpu, {kUserBit | kKernelBit, kTotal}},
    {CPerfMon::perCpuIdle, CPerfMon::perCpu, {kIdleBit, kTotal}},
    {CPerfMon::perCpuUser, CPerfMon::perCpu, {kUserBit, kTotal}},
    {CPerfMon::perCpuKernel, CPerfMon::perCpu, {kKernelBit, kTotal}},
    {CPerfMon::memoryVirtual, CPerfMon::memory, {kUsedVirtualBit, kTotalVirtual}},
    {CPerfMon::memoryPhysical, CPerfMon::memory, {kUsedPhysicalBit, kTotalPhysical}},
    {CPerfMon::networkTotal, CPerfMon::network, {kReceivedBit | kSentBit, kCapacity}},
    {CPerfMon::networkSent, CPerfMon::network, {kSentBit, kCapacity}},
    {CPerfMon::networkReceived, CPerfMon::network, {kReceivedBit, kCapacity}},
});

bool IsProcessValue(CPerfMon::PerfMonitorValue value) {
  return value >= CPerfMon::processFirst && value <= CPerfMon::processLast;
}

const ValueRow* FindRow(CPerfMon::PerfMonitorValue value) {
  const auto row = std::ranges::find(kValueRows, value, &ValueRow::value);
  return row == kValueRows.end() ? nullptr : &*row;
}

}  // namespace

bool CPerfMon::IsMonitorValue(PerfMonitorValue value, PerfMonitorType type) {
  if (IsProcessValue(value)) return type == processes;
  const ValueRow* row = FindRow(value);
  return row != nullptr && row->type == type;
}

bool CPerfMon::GetCurrentPercent(PerfMonitorValue value, unsigned char& percent, int instance) {
  return GetPercent(value, percent, instance, true);
}

bool CPerfMon::GetAveragePercent(PerfMonitorValue value, unsigned char& percent, int instance) {
  return GetPercent(value, percent, instance, false);
}

bool CPerfMon::GetUsagePercent(unsigned char& percent, PerfMonitorValue value, int mode, int instance) {
  if (mode == kModeCurrent) return GetCurrentPercent(value, percent, instance);
  if (mode == kModeAverage) return GetAveragePercent(value, percent, instance);
  return false;
}

bool CPerfMon::GetPercent(PerfMonitorValue value, unsigned char& percent, int instance, bool newestOnly) {
  if (IsProcessValue(value)) return GetProcessPercent(percent, instance);
  const ValueRow* row = FindRow(value);
  const Type type = row != nullptr ? row->type : Type{};
  switch (type) {
    case systemCpu:
      return GetHistoryPercent(m_SystemHistory, row->rule, percent, instance, newestOnly);
    case perCpu:
      return GetHistoryPercent(m_CpuHistory, row->rule, percent, instance, newestOnly);
    case network:
      return GetHistoryPercent(m_NetworkHistory, row->rule, percent, instance, newestOnly);
    case memory:
      return GetHistoryPercent(m_MemoryHistory, row->rule, percent, instance, newestOnly);
    default:
      percent = 0;
      return false;
  }
}

// A process has no records to make a percentage of.
bool CPerfMon::GetProcessPercent(unsigned char& percent, int instance) {
  const CCriticalSectionLock lock(m_CritSec);
  percent = 0;
  return m_Processes.contains(static_cast<uint32_t>(instance));
}

template <typename T>
bool CPerfMon::GetHistoryPercent(const CDataHistoryBuffer<T>& history, PercentRule rule, unsigned char& percent,
                                 int instance, bool newestOnly) {
  const bool all = instance == kAllInstances;
  const int first = all ? 0 : instance;
  const int count = all ? history.Instances() : 1;
  CPercentSum sum(rule);
  int found = 0;
  for (int i = 0; i < count; ++i) {
    found +=
        history.Read(first + i, newestOnly, [&sum](const T& record) { sum.Add(std::bit_cast<PerfFields>(record)); });
  }
  // Histories that are emptied meanwhile count as far as they were there.
  percent = newestOnly ? sum.OverInstances(static_cast<size_t>(found)) : sum.OverElements();
  return found > 0;
}
