#include "perfmon/perf_mon.h"

#include <pthread.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <limits>
#include <string>
#include <string_view>
#include <thread>

#include "perfmon/net_dev.h"
#include "perfmon/network_interface_table.h"
#include "perfmon/sample_text.h"
#include "platform/descriptor_io.h"
#include "platform/unique_fd.h"
#include "platform/wait_result.h"
#include "trace/debug.h"

namespace {

constexpr const char* kProcMemInfo = "/proc/meminfo";
constexpr const char* kProcStat = "/proc/stat";

constexpr std::chrono::milliseconds kFirstInterval{250};
constexpr unsigned long kThreadPriority = 63;
constexpr unsigned int kStopTimeoutMs = 2000;

uint64_t NowMs() {
  using std::chrono::duration_cast;
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return static_cast<uint64_t>(duration_cast<std::chrono::milliseconds>(now).count());
}

int ToInt(uint32_t value) {
  return static_cast<int>(std::min<uint32_t>(value, std::numeric_limits<int>::max()));
}

}  // namespace

CPerfMon::CPerfMon(unsigned int historySize) : m_StopEvent(false, true, nullptr), m_HistorySize(historySize) {}

CPerfMon::~CPerfMon() {
  StopMonitoring();
}

bool CPerfMon::StartMonitoring(int mask, unsigned int updateTimeMs) {
  const CCriticalSectionLock lock(m_CritSec);
  TRACE(4, "\nCPerfMon::Start     : Start performance monitoring, update time = %d msec.",
        static_cast<int>(updateTimeMs));
  const bool hadInterval = m_UpdateTime.exchange(updateTimeMs) != 0;
  if (m_Started && (hadInterval || updateTimeMs == 0)) return true;
  if (m_Started) {
    EndThread();  // it was left without an interval: it has ended, or waits for the last time
    return RunThread();
  }
  ForgetLastSamples();
  CreateHistories(static_cast<unsigned int>(mask));
  m_MonitorMask = static_cast<unsigned int>(mask);
  if (!HasHistory() && !m_MonitorProcesses) return false;
  SnapshotData(m_MonitorMask);
  std::this_thread::sleep_for(kFirstInterval);
  SnapshotData(m_MonitorMask);
  return RunThread();
}

void CPerfMon::StopMonitoring() {
  const CCriticalSectionLock lock(m_CritSec);
  TRACE(4, "\nCPerfMon::Stop      : Stop performance monitoring");
  if (m_Started) {
    EndThread();
    m_Started = false;
    TRACE(4, "\nCPerfMon::Stop      :   monitoring thread terminated");
  }
  DestroyHistories();
  TRACE(4, "\nCPerfMon::Stop      :   history data destroyed");
}

void CPerfMon::CreateHistories(unsigned int mask) {
  if ((mask & memory) != 0) {
    TRACE(4, "\nCPerfMon::Start     :   - monitor memory usage");
    m_MemoryHistory.Create(ToInt(m_HistorySize), 1);
  }
  if ((mask & systemCpu) != 0) {
    TRACE(4, "\nCPerfMon::Start     :   - monitor system utilization");
    m_SystemHistory.Create(ToInt(m_HistorySize), 1);
  }
  if ((mask & perCpu) != 0) TRACE(4, "\nCPerfMon::Start     :   - monitor CPU usage");
  if ((mask & network) != 0) {
    TRACE(4, "\nCPerfMon::Start     :   - monitor network usage");
    CreateNetworkHistory();
  }
  if ((mask & kProcessMask) != 0) {
    TRACE(4, "\nCPerfMon::Start     :   - monitor processes");
    m_MonitorProcesses = true;
  }
}

// The interfaces are counted once in the life of the object, as soon as there are any.
void CPerfMon::CreateNetworkHistory() {
  const CCriticalSectionLock lock(m_SampleSection);
  if (m_Interfaces.empty()) {
    const unsigned char count = CNetworkInterfaceTable::GetInterface(0, nullptr, 1);
    TRACE(3, "CNetworkInterfaceTable: GetNumberInterfaces() = %d\n", count);
    if (count == CNetworkInterfaceTable::kError || count == 0) return;
    m_Interfaces.resize(count);
  }
  m_NetworkHistory.Create(ToInt(m_HistorySize), static_cast<int>(m_Interfaces.size()));
}

// The first sample after a start only primes the differences: nothing reaches back over the time without monitoring.
void CPerfMon::ForgetLastSamples() {
  const CCriticalSectionLock lock(m_SampleSection);
  std::ranges::fill(m_Interfaces, NetInterfaceState{});
  m_LastTicks = {};
}

bool CPerfMon::HasHistory() const {
  return m_CpuHistory.Instances() > 0 || m_SystemHistory.Instances() > 0 || m_NetworkHistory.Instances() > 0 ||
         m_MemoryHistory.Instances() > 0;
}

bool CPerfMon::RunThread() {
  TRACE(4, "\nCPerfMon::Start     :   start monitoring thread");
  m_StopEvent.Reset();
  m_Started = m_Thread.Start(&CPerfMon::StartMonitoringThread, this, kThreadPriority, false, 0, 0, true);
  if (!m_Started) DestroyHistories();
  return m_Started;
}

void CPerfMon::EndThread() {
  m_StopEvent.Set();
  m_Thread.WaitForTermination(kStopTimeoutMs);
}

void CPerfMon::DestroyHistories() {
  m_MonitorProcesses = false;
  m_CpuHistory.Destroy();
  m_SystemHistory.Destroy();
  m_NetworkHistory.Destroy();
  m_MemoryHistory.Destroy();
}

void* CPerfMon::StartMonitoringThread(void* monitor) {
  static_cast<CPerfMon*>(monitor)->MonitorUntilStopped();
  TRACE(1, "THREAD_RETURN: ## INFO: Thread = 0x%08X exited, Return = 0x%08x##\n",
        static_cast<unsigned int>(pthread_self()), 0U);
  return nullptr;
}

// The interval is read anew for every wait, because a second start may change it.
void CPerfMon::MonitorUntilStopped() {
  TRACE(4, "\nCPerfMon::Thread    : Monitoring thread start, update time = %d msec.", static_cast<int>(m_UpdateTime));
  while (const uint32_t updateTime = m_UpdateTime) {
    TRACE(4, "\nCPerfMon::Thread    : update snapshot data...");
    SnapshotData(m_MonitorMask);
    TRACE(4, "\nCPerfMon::Thread    : snapshot data updated, sleeping %d msec.", static_cast<int>(updateTime));
    if (m_StopEvent.Wait(updateTime, false) != kWaitTimedOut) return;
  }
}

void CPerfMon::SnapshotData(unsigned int mask) {
  const CCriticalSectionLock lock(m_SampleSection);
  TRACE(5, "\nCPerfMon::SnapData  :   update snapshot counters...");
  if ((mask & memory) != 0) SnapshotMemory();
  if ((mask & systemCpu) != 0) SnapshotSystem();
  if ((mask & perCpu) != 0) {
    TRACE(5, "\nCPerfMon::SnapData  :   - update CPU usage for %d instances", m_CpuHistory.Instances());
  }
  if ((mask & network) != 0) SnapshotNetwork();
  if ((mask & kProcessMask) != 0) TRACE(5, "\nCPerfMon::SnapData  :   - update processes");
  TRACE(5, "\nCPerfMon::SnapData  : update snapshot data finished");
}

void CPerfMon::SnapshotMemory() {
  TRACE(5, "\nCPerfMon::SnapData  :   - update memory usage");
  _PerfDataMemory record;
  if (!ReadMemory(record)) return;
  const int entries = m_MemoryHistory.Append(0, record);
  TRACE(5, "\nCPerfMon::SnapData  :   - memory history: %d entries", entries);
}

bool CPerfMon::ReadMemory(_PerfDataMemory& record) {
  std::string text;
  if (!OpenAndReadToEnd(kProcMemInfo, text)) {
    TRACE(3, "CPerfData::GetMemoryDataSnapShot: cannot open %s (errno=%d)\n", kProcMemInfo, errno);
    return false;
  }
  MemInfo info;
  if (!ParseMemInfo(text, info)) {
    TRACE(3, "CPerfData::GetMemoryDataSnapShot: cannot get all values from %s\n", kProcMemInfo);
    return false;
  }
  record = MakeMemoryRecord(info);
  return true;
}

void CPerfMon::SnapshotSystem() {
  TRACE(5, "\nCPerfMon::SnapData  :   - update system usage");
  _PerfDataSystem ticks;
  if (!ReadSystem(ticks)) return;
  const bool isFirst = m_LastTicks.idle == 0;
  const _PerfDataSystem record = TicksBetween(m_LastTicks, ticks);
  m_LastTicks = ticks;
  if (isFirst) return;
  TRACE(5, "GetPerfDataSystem: Total=%llu, User=%llu, Kern=%llu, Idle=%llu\n",
        static_cast<unsigned long long>(record.total), static_cast<unsigned long long>(record.user),
        static_cast<unsigned long long>(record.kernel), static_cast<unsigned long long>(record.idle));
  const int entries = m_SystemHistory.Append(0, record);
  TRACE(5, "\nCPerfMon::SnapData  :   - system history: %d entries", entries);
}

bool CPerfMon::ReadSystem(_PerfDataSystem& ticks) {
  std::string text;
  if (!OpenAndReadToEnd(kProcStat, text)) {
    TRACE(3, "CPerfData::GetSystemLoadSnapShot: cannot open %s (errno=%d)\n", kProcStat, errno);
    return false;
  }
  const int found = ParseCpuLine(std::string_view(text).substr(0, text.find('\n')), ticks);
  if (found == 4) return true;
  TRACE(3, "CPerfData::GetSystemLoadSnapShot: cannot get System Load values from %s (ret=%d)\n", kProcStat, found);
  return false;
}

// The counters of all interfaces come from one reading, so one time holds for all of them.
void CPerfMon::SnapshotNetwork() {
  const int count = static_cast<int>(m_Interfaces.size());
  TRACE(5, "\nCPerfMon::SnapData  :   - update network usage for %d instances", count);
  if (count == 0) return;
  std::string text;
  if (!OpenAndReadToEnd(kProcNetDev, text)) {
    TRACE(3, "CNetworkInterfaceStatistics::GetStatistikAtIndex: cannot open %s (errno=%d)\n", kProcNetDev, errno);
    return;
  }
  const uint64_t nowMs = NowMs();
  const UniqueFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  std::string_view rest = text;
  for (int number = 0; number < count; ++number) {
    NetDevLine line;
    if (TakeSampledInterface(rest, line)) {
      SnapshotInterface(number, line, nowMs, socket.Get());
    } else {
      m_Interfaces[static_cast<size_t>(number)].sampleTimeMs = 0;
      TRACE(3, "CNetworkInterfaceStatistics::GetStatistikAtIndex: interface for Index=%d not found\n", number);
    }
  }
}

void CPerfMon::SnapshotInterface(int number, const NetDevLine& line, uint64_t nowMs, int socket) {
  NetInterfaceState& state = m_Interfaces[static_cast<size_t>(number)];
  if (state.name != line.name) {
    m_NetworkHistory.Clear(number);
    state = {.name = std::string(line.name)};
  }
  NetCounters counters;
  const int found = ParseNumbers(line.counters, counters);
  if (found != static_cast<int>(counters.size())) {
    TRACE(3, "CNetworkInterfaceStatistics::GetStatistikAtIndex: cannot get Network Load values from %s (ret=%d)\n",
          kProcNetDev, found);
    return;
  }
  _PerfDataNetwork record;
  if (MakeNetworkRecord(state, nowMs, counters, ReadLinkSpeed(socket, line.name), record)) {
    const int entries = m_NetworkHistory.Append(number, record);
    TRACE(5, "\nCPerfMon::SnapData  :   - network history[%02d]: %d entries", number, entries);
  }
  state.sampleTimeMs = nowMs;
  state.counters = counters;
}
