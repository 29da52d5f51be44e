#include <algorithm>
#include <array>

#include "perfmon/percent_sum.h"
#include "perfmon/perf_mon.h"

namespace {

using Value = CPerfMon::PerfMonitorValue;
using Type = CPerfMon::PerfMonitorType;

// A value is the percentage that its parts, added up, are of the whole.
template <typename Record>
struct ValueRow {
  Value value;
  Type type;
  uint64_t Record::*part;
  uint64_t Record::*morePart;  // null: there is one part only
  uint64_t Record::*whole;
};

using Ticks = _PerfDataSystem;
constexpr auto kTickRows = std::to_array<ValueRow<Ticks>>({
    {CPerfMon::cpuUsed, CPerfMon::systemCpu, &Ticks::user, &Ticks::kernel, &Ticks::total},
    {CPerfMon::cpuIdle, CPerfMon::systemCpu, &Ticks::idle, nullptr, &Ticks::total},
    {CPerfMon::cpuUser, CPerfMon::systemCpu, &Ticks::user, nullptr, &Ticks::total},
    {CPerfMon::cpuKernel, CPerfMon::systemCpu, &Ticks::kernel, nullptr, &Ticks::total},
    {CPerfMon::perCpuUsed, CPerfMon::perCpu, &Ticks::user, &Ticks::kernel, &Ticks::total},
    {CPerfMon::perCpuIdle, CPerfMon::perCpu, &Ticks::idle, nullptr, &Ticks::total},
    {CPerfMon::perCpuUser, CPerfMon::perCpu, &Ticks::user, nullptr, &Ticks::total},
    {CPerfMon::perCpuKernel, CPerfMon::perCpu, &Ticks::kernel, nullptr, &Ticks::total},
});

using Memory = _PerfDataMemory;
constexpr auto kMemoryRows = std::to_array<ValueRow<Memory>>({
    {CPerfMon::memoryVirtual, CPerfMon::memory, &Memory::usedVirtual, nullptr, &Memory::totalVirtual},
    {CPerfMon::memoryPhysical, CPerfMon::memory, &Memory::usedPhysical, nullptr, &Memory::totalPhysical},
});

using Network = _PerfDataNetwork;
constexpr auto kNetworkRows = std::to_array<ValueRow<Network>>({
    {CPerfMon::networkTotal, CPerfMon::network, &Network::received, &Network::sent, &Network::capacity},
    {CPerfMon::networkSent, CPerfMon::network, &Network::sent, nullptr, &Network::capacity},
    {CPerfMon::networkReceived, CPerfMon::network, &Network::received, nullptr, &Network::capacity},
});

bool IsProcessValue(Value value) {
  return value >= CPerfMon::processFirst && value <= CPerfMon::processLast;
}

template <typename Rows>
auto FindRow(const Rows& rows, Value value) {
  const auto row = std::ranges::find(rows, value, &Rows::value_type::value);
  return row == rows.end() ? nullptr : &*row;
}

template <typename Record, typename Fields>
bool HistoryPercent(const CDataHistoryBuffer<Record>& history, const ValueRow<Fields>& row, unsigned char& percent,
                    int instance, bool newestOnly) {
  const bool all = instance == CPerfMon::kAllInstances;
  const int first = all ? 0 : instance;
  const int count = all ? history.Instances() : 1;
  CPercentSum sum;
  const auto add = [&sum, &row](const Record& record) {
    sum.Add(uint128{record.*row.part} + (row.morePart != nullptr ? record.*row.morePart : 0), record.*row.whole);
  };
  int found = 0;
  for (int i = 0; i < count; ++i) {
    if (history.Read(first + i, newestOnly, add)) ++found;
  }
  // Histories that are emptied meanwhile count as far as they were there.
  percent = newestOnly ? sum.OverInstances(static_cast<size_t>(found)) : sum.OverElements();
  return found > 0;
}

}  // namespace

bool CPerfMon::IsMonitorValue(PerfMonitorValue value, PerfMonitorType type) {
  if (IsProcessValue(value)) return type == processes;
  const auto has = [value, type](const auto& rows) {
    const auto* row = FindRow(rows, value);
    return row != nullptr && row->type == type;
  };
  return has(kTickRows) || has(kMemoryRows) || has(kNetworkRows);
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
  if (const auto* row = FindRow(kTickRows, value)) {
    return row->type == perCpu ? HistoryPercent(m_CpuHistory, *row, percent, instance, newestOnly)
                               : HistoryPercent(m_SystemHistory, *row, percent, instance, newestOnly);
  }
  if (const auto* row = FindRow(kMemoryRows, value)) {
    return HistoryPercent(m_MemoryHistory, *row, percent, instance, newestOnly);
  }
  if (const auto* row = FindRow(kNetworkRows, value)) {
    return HistoryPercent(m_NetworkHistory, *row, percent, instance, newestOnly);
  }
  percent = 0;
  return false;
}

// A process has no records to make a percentage of.
bool CPerfMon::GetProcessPercent(unsigned char& percent, int instance) {
  const CCriticalSectionLock lock(m_CritSec);
  percent = 0;
  return m_Processes.contains(static_cast<uint32_t>(instance));
}
