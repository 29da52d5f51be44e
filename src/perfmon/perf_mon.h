#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <vector>

#include "perfmon/data_history_buffer.h"
#include "perfmon/perf_data.h"
#include "platform/critical_section.h"
#include "platform/event.h"
#include "platform/export.h"
#include "platform/thread.h"

class CProcInfo;
struct NetDevLine;

// Samples the load of the machine at a fixed interval in a thread of its own, keeps a bounded history per monitored
// object and answers what percentage was used: at the latest sample, or on average over the history.
//
//   CPerfMon monitor(60);
//   monitor.StartMonitoring(CPerfMon::systemCpu | CPerfMon::memory, 1000);
//   unsigned char percent;
//   if (monitor.GetCurrentPercent(CPerfMon::cpuUsed, percent, 0)) ...
//
// Threads: every operation may be called from any thread at any time. Starting and stopping wait for one another;
// queries of system, network and memory values wait for neither.
// Ownership: the object owns its thread and histories. Each sample opens, reads and closes its files.
// Failures: what cannot be read is traced and left out of the histories; a query that has no object to answer for
// gives 0 % and false.
// There are no copies: the monitoring thread holds the object's address.
class RAVD_EXPORT CPerfMon {
 public:
  // The kinds of what is monitored: bits of the masks, but for processes, which any bit of kProcessMask selects.
  enum PerfMonitorType : unsigned int {
    systemCpu = 1,   // all processors together
    perCpu = 2,      // accepted and traced, but not sampled: its values have no instance
    network = 4,     // every interface
    memory = 8,      // physical and with swap
    processes = 16,  // never sampled
  };
  static constexpr unsigned int kProcessMask = 0xF800;  // the bits of the start mask that stand for processes

  // What can be asked for. The comment says of what it is the percentage.
  enum PerfMonitorValue : unsigned int {
    cpuUsed = 0,           // user and kernel, of the time of all processors
    cpuIdle = 1,           // idle, of the time of all processors
    cpuUser = 2,           // user, of the time of all processors
    cpuKernel = 3,         // kernel, of the time of all processors
    perCpuUsed = 4,        // as cpuUsed of one processor; see perCpu
    perCpuIdle = 5,        // as cpuIdle of one processor; see perCpu
    perCpuUser = 6,        // as cpuUser of one processor; see perCpu
    perCpuKernel = 7,      // as cpuKernel of one processor; see perCpu
    memoryVirtual = 8,     // used, of physical memory and swap
    memoryPhysical = 9,    // used, of physical memory
    networkTotal = 10,     // received and sent, of what the link carries
    networkSent = 11,      // sent, of what the link carries
    networkReceived = 12,  // received, of what the link carries
    processFirst = 13,     // the first value of a process
    processLast = 20,      // the last one
  };

  static constexpr int kModeCurrent = 0;    // mode of GetUsagePercent: the latest sample
  static constexpr int kModeAverage = 1;    // mode of GetUsagePercent: the history
  static constexpr int kAllInstances = -1;  // instance of the queries: all together

  // historySize: elements kept per instance.
  explicit CPerfMon(unsigned int historySize);
  // Stops the monitoring.
  ~CPerfMon();
  CPerfMon(const CPerfMon&) = delete;
  CPerfMon& operator=(const CPerfMon&) = delete;

  // Sets up empty histories for the kinds in mask, takes two samples 250 ms apart, so that the differences of an
  // interval are there at once, and starts the thread. Returns whether the thread runs; when it does not, no history
  // is left. Nothing reaches back over the time without monitoring, but the interfaces stay those of the first count.
  // With no kind that can be sampled (per-CPU alone, or network without an interface) no thread is started.
  // When already started, only the interval changes, from the next wait on. With an interval of 0 the thread ends at
  // once, or after the wait that it is in, and SnapshotData alone adds samples; the object counts as started all the
  // same, and with a further start that gives an interval there is a thread again.
  bool StartMonitoring(int mask, unsigned int updateTimeMs);

  // Wakes the thread, waits for it and empties the histories. A sample that runs is finished. May be called again.
  void StopMonitoring();

  // Whether the last start is not stopped yet, with a thread or without.
  bool IsStarted() const { return m_Started.load(std::memory_order_relaxed); }

  // Takes one sample of the kinds in mask now. A kind that was not started is read, but has no history to enter.
  void SnapshotData(unsigned int mask);

  // Whether the value is one of that kind; false for anything that is not one kind.
  static bool IsMonitorValue(PerfMonitorValue value, PerfMonitorType type);

  // Percentage 0-100 of the newest sample, or over the whole history. instance: the interface number for network
  // values, the process id for process values, 0 for the others; kAllInstances means all of them together.
  // An interface number is a place in the kernel's list. When another interface comes to that place, its history begins
  // anew; when none is there any more, it stays.
  // 0 % and true for an instance without samples. 0 % and false for an unknown value and for an instance that does not
  // exist, kAllInstances without any instance included. No process is known, so process values are always the latter:
  bool GetCurrentPercent(PerfMonitorValue value, unsigned char& percent, int instance);
  bool GetAveragePercent(PerfMonitorValue value, unsigned char& percent, int instance);

  // GetCurrentPercent or GetAveragePercent by its mode; with any other mode false, and percent is left as it was.
  bool GetUsagePercent(unsigned char& percent, PerfMonitorValue value, int mode, int instance);

 private:
  static void* StartMonitoringThread(void* monitor);
  void MonitorUntilStopped();

  // Steps of StartMonitoring and StopMonitoring; m_CritSec is held.
  void CreateHistories(unsigned int mask);
  void CreateNetworkHistory();
  void ForgetLastSamples();
  bool HasHistory() const;
  bool RunThread();
  void EndThread();
  void DestroyHistories();

  // Steps of a sample; m_SampleSection is held.
  void SnapshotMemory();
  void SnapshotSystem();
  void SnapshotNetwork();
  void SnapshotInterface(int number, const NetDevLine& line, uint64_t nowMs, int socket);
  static bool ReadMemory(_PerfDataMemory& record);
  static bool ReadSystem(_PerfDataSystem& ticks);

  bool GetPercent(PerfMonitorValue value, unsigned char& percent, int instance, bool newestOnly);
  bool GetProcessPercent(unsigned char& percent, int instance);

  // Starting and stopping hold this section throughout; it also guards the maps of the processes.
  CCriticalSection m_CritSec;
  std::map<uint32_t, CProcInfo*> m_Processes;  // by process id; nothing enters one
  std::map<int, bool> m_ProcessFlags;

  // Guarded by m_SampleSection.
  std::vector<NetInterfaceState> m_Interfaces;  // known from the first start of network monitoring on
  _PerfDataSystem m_LastTicks{};                // idle 0 = no sample yet

  // Each has its own lock.
  CDataHistoryBuffer<_PerfDataCpu> m_CpuHistory;
  CDataHistoryBuffer<_PerfDataSystem> m_SystemHistory;
  CDataHistoryBuffer<_PerfDataNetwork> m_NetworkHistory;
  CDataHistoryBuffer<_PerfDataMemory> m_MemoryHistory;

  CThread m_Thread;
  CEvent m_StopEvent;

  std::atomic<uint32_t> m_UpdateTime = 1000;  // ms
  const uint32_t m_HistorySize;
  std::atomic<bool> m_Started = false;
  uint32_t m_MonitorMask = 0;       // written while no thread runs
  bool m_MonitorProcesses = false;  // guarded by m_CritSec

  // One sample at a time; taken after m_CritSec and before the lock of a history.
  CCriticalSection m_SampleSection;
};
