#include "inventory/system_device_scan.h"

#include <cxxabi.h>

#include <algorithm>
#include <chrono>

#include "inventory/pci_list_walk.h"
#include "trace/debug.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr unsigned int kStopTimeoutMs = 5000;
constexpr unsigned int kUpdateSeconds = 60;
constexpr unsigned int kExitCheckMs = 50;
constexpr unsigned long kUpdatePriority = 63;

}  // namespace

CSystemDeviceScan::Turn::Turn(CSystemDeviceScan& scan, unsigned int timeoutMs, Caller caller)
    : m_Call(scan.m_Calls, std::defer_lock), m_Gate(scan.m_ScanGate), m_Lists(scan.m_ListsFree) {
  if (caller == kClient) m_Call.lock();
  const Clock::time_point end = Clock::now() + std::chrono::milliseconds(timeoutMs);
  if (!m_Gate.Take(timeoutMs)) return;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
  if (!m_Lists.Take(static_cast<unsigned int>(std::max<long long>(left, 0)))) m_Gate.GiveBack();
}

void CSystemDeviceScan::Turn::GiveBack() {
  m_Lists.GiveBack();
  m_Gate.GiveBack();
}

CSystemDeviceScan::CSystemDeviceScan() {
  m_ExitEvent.Create(false, false, nullptr);
}

CSystemDeviceScan::CSystemDeviceScan(const CSystemDeviceScan& other) : CSystemDeviceScan() {
  ClassCopy(other);
}

CSystemDeviceScan& CSystemDeviceScan::operator=(const CSystemDeviceScan& other) {
  ClassCopy(other);
  return *this;
}

CSystemDeviceScan::~CSystemDeviceScan() {
  Terminate(kStopTimeoutMs);
  TRACE(1, "\nCSystemDeviceScan   : CLASS DESTROYED!\n");
  m_Calls.lock();
  m_Calls.unlock();
  // A scan that was under way may have started the thread again.
  if (IsUpdateThreadAlive()) StopUpdateThread(kStopTimeoutMs);
}

void CSystemDeviceScan::ClassCopy(const CSystemDeviceScan& other) {
  TRACE(5, "\nCSystemDeviceScan   : -> ClassCopy()");
  StopUpdateThread(kStopTimeoutMs);
  if (this != &other) CopyLists(other);
  StartUpdateThread();
  TRACE(5, "\nCSystemDeviceScan   : <- ClassCopy()");
}

// The update thread of the other object may be at work.
void CSystemDeviceScan::CopyLists(const CSystemDeviceScan& other) {
  EventHold lists(other.m_ListsFree);
  if (!lists.Take(kQueryTimeoutMs)) return;
  m_Adapters = other.m_Adapters;
  m_Volumes = other.m_Volumes;
  const CCriticalSectionLock lock(other.m_PciConfigList.Lock());
  m_PciConfigList = other.m_PciConfigList;
  m_ScanFlags = other.m_ScanFlags.load();
}

int CSystemDeviceScan::ScanHardware(int flags, bool startUpdateThread, unsigned int timeoutMs,
                                    _ScanOptions* /*options*/) {
  return Scan(flags, startUpdateThread, timeoutMs);
}

int CSystemDeviceScan::Scan(int flags, std::optional<bool> startUpdateThread, unsigned int timeoutMs) {
  TRACE(4, "\n\nCSystemDeviceScan   : -> ScanHardware()");
  TRACE(3, "\n\nCSystemDeviceScan   : Waiting %d msec for pending hardware scan operation ...",
        static_cast<int>(timeoutMs));
  Turn turn(*this, timeoutMs);
  if (!turn) {
    TRACE(1, "\nCSystemDeviceScan   : ## WARNING! Time out waiting for end of pending hardware scan! (%d msec)\n",
          static_cast<int>(timeoutMs));
    TRACE(2, "\nCSystemDeviceScan   : ... hardware scan completed (%s)!\n\n", "FAILED");
    TRACE(4, "\n\nCSystemDeviceScan   : <- ScanHardware()");
    return -1;
  }
  int result = -1;
  try {
    const bool startsThread = startUpdateThread.value_or(IsUpdateThreadAlive());
    RunSteps(flags);
    result = 0;
    if (startsThread) {
      TRACE(3, "\nCSystemDeviceScan   : Start update thread (partition check)");
      StartUpdateThread();
    } else {
      TRACE(3, "\nCSystemDeviceScan   : Start update thread (partition check) skipped");
    }
    turn.GiveBack();
    TRACE(2, "\nCSystemDeviceScan   : ... hardware scan completed (%s)!\n\n", "OK");
  } catch (const abi::__forced_unwind&) {
    throw;  // the calling thread is being cancelled
  } catch (...) {
    TRACE(1, "\n\nCSystemDeviceScan   : ERROR! EXCEPTION in ScanHardware()!");
    turn.GiveBack();
  }
  TRACE(4, "\n\nCSystemDeviceScan   : <- ScanHardware()");
  return result;
}

int CSystemDeviceScan::ScanDevices(int flags, bool startUpdateThread, unsigned int timeoutMs) {
  return ScanHardware(flags, startUpdateThread, timeoutMs, nullptr);
}

int CSystemDeviceScan::RescanHardware(unsigned int timeoutMs, _ScanOptions* /*options*/) {
  return Scan(-1, std::nullopt, timeoutMs);
}

// The turn is taken. Terminate may come in between any two steps.
void CSystemDeviceScan::RunSteps(int flags) {
  m_ScanFlags = flags;
  TRACE(1, "\n\nCSystemDeviceScan   : Start hardware rescan ...");
  StopUpdateThread(kStopTimeoutMs);
  if ((flags & SCAN_ADAPTERS) != 0) {
    if (!m_Terminating) ScanPciFunctions();
    if (!m_Terminating) ScanSystemAdapters();
  } else {
    TRACE(2, "\nCSystemDeviceScan   : Scan of system adapters skipped!");
  }
  if ((flags & SCAN_DRIVES) != 0) {
    if (!m_Terminating) ScanSystemDrives();
  } else {
    TRACE(2, "\nCSystemDeviceScan   : Scan of system drives skipped!");
  }
  if ((flags & SCAN_VOLUMES) != 0) {
    if (!m_Terminating) ScanSystemVolumes();
  } else {
    TRACE(2, "\nCSystemDeviceScan   : Scan of system volumes skipped!");
  }
}

void CSystemDeviceScan::ScanPciFunctions() {
  TRACE(3, "\nCSystemDeviceScan   : Scan PCI slot data ...");
  const CCriticalSectionLock lock(m_PciConfigList.Lock());
  m_PciConfigList.clear();
  ScanPciSlotsQuietly(m_PciConfigList);
}

bool CSystemDeviceScan::ScanSystemAdapters() {
  TRACE(3, "\nCSystemDeviceScan   : Scan system devices ...");
  m_Adapters.clear();
  CSystemAdapter::ScanSystemAdapters(m_Adapters, m_PciConfigList, false);
  return !m_Adapters.empty();
}

bool CSystemDeviceScan::ScanSystemDrives() {
  TRACE(3, "\nCSystemDeviceScan   : Scan system drives ...");
  m_DriveMap.clear();
  m_Drives.clear();
  CSystemDrive::ScanSystemDrives(m_Drives, false, false, &m_Terminating);
  for (CSystemDrive& drive : m_Drives)
    AddToDriveMap(drive);
  return true;
}

void CSystemDeviceScan::AddToDriveMap(CSystemDrive& drive) {
  const std::string key = drive.DeviceId != nullptr ? drive.ClassGuid.ToString() : "";
  m_DriveMap[key].push_back(drive);
  CSystemDrive::Dump(3, drive);
}

bool CSystemDeviceScan::ScanSystemVolumes() {
  TRACE(3, "\nCSystemDeviceScan   : Scan system volumes ...");
  m_Volumes.clear();
  CSystemVolume::ScanSystemVolumes(m_Volumes, &m_Terminating);
  return true;
}

bool CSystemDeviceScan::ScanSystemPartitions() {
  TRACE(3, "\nCSystemDeviceScan   : Scan system partitions ...");
  return true;
}

int CSystemDeviceScan::GetVolumeCount() {
  const Turn turn(*this, kQueryTimeoutMs);
  if (!turn) {
    TRACE(1, "\nCSystemDeviceScan   : WARNING! GetVolumeNumber(): Access timeout!\n");
    return 0;
  }
  m_Volumes.clear();
  CSystemVolume::ScanSystemVolumes(m_Volumes, &m_Terminating);
  return static_cast<int>(m_Volumes.size());
}

bool CSystemDeviceScan::ScanVolumes() {
  const Turn turn(*this, kQueryTimeoutMs);
  if (turn) return ScanSystemVolumes();
  TRACE(1, "\nCSystemDeviceScan   : WARNING! ScanVolumes(): Access timeout!\n");
  return false;
}

// ScanVolumes for the update thread. Whoever stops the thread may have the turn, so it is waited for in short pieces.
void CSystemDeviceScan::ScanVolumesUnlessStopped() {
  for (unsigned int waitedMs = 0; waitedMs < kQueryTimeoutMs && !m_ExitRequested; waitedMs += kExitCheckMs) {
    const Turn turn(*this, kExitCheckMs, Turn::kUpdateThread);
    if (!turn) continue;
    TRACE(3, "\nCSystemDeviceScan   : Scan system volumes ...");
    m_Volumes.clear();
    CSystemVolume::ScanSystemVolumes(m_Volumes, &m_ExitRequested);
    return;
  }
  if (!m_ExitRequested) TRACE(1, "\nCSystemDeviceScan   : WARNING! ScanVolumes(): Access timeout!\n");
}

bool CSystemDeviceScan::IsUpdateThreadAlive() const {
  const CCriticalSectionLock lock(m_ThreadLock);
  return m_UpdateThread.IsAlive();
}

int CSystemDeviceScan::StartUpdateThread() {
  if ((m_ScanFlags & SCAN_UPDATE_THREAD) == 0) {
    TRACE(2, "\nCSystemDeviceScan   : WatchPartitions() skipped!");
    return 1;
  }
  const CCriticalSectionLock lock(m_ThreadLock);
  if (m_UpdateThread.IsAlive()) return 1;
  m_ExitRequested = false;
  m_ExitEvent.Reset();
  TRACE(1, "CThread::SetThreadName: ThreadId = 0x%08X, DebugName = %s, Qualifier = (%s)\n",
        static_cast<unsigned int>(m_UpdateThread.GetHandle()), "WatchPartitions", "");
  m_UpdateThread.Start(LaunchAsThread_WatchPartitions, this, kUpdatePriority, false, 0, 0, true);
  return 1;
}

int CSystemDeviceScan::StopUpdateThread(unsigned int timeoutMs) {
  const CCriticalSectionLock lock(m_ThreadLock);
  if (!m_UpdateThread.IsAlive()) {
    TRACE(3, "\nCSystemDeviceScan   : Update thread not running!");
    return 1;
  }
  TRACE(3, "\nCSystemDeviceScan   : Signale \"Exit\" to update thread");
  m_ExitRequested = true;
  m_ExitEvent.Set();
  const int seconds = static_cast<int>(timeoutMs / 1000);
  TRACE(3, "\nCSystemDeviceScan   : Wait %d seconds for thread termination ...", seconds);
  const bool ended = m_UpdateThread.WaitForTermination(timeoutMs);
  if (ended) {
    TRACE(3, "\nCSystemDeviceScan   : Update thread did exit!");
  } else {
    TRACE(1, "\nCSystemDeviceScan   : ERROR! Update thread did not terminate within %d seconds!", seconds);
  }
  m_UpdateThread.Kill();
  return ended ? 1 : 0;
}

int CSystemDeviceScan::Terminate(unsigned int timeoutMs) {
  TRACE(1, "\nCSystemDeviceScan   : ### TERMINATE ###");
  m_Terminating = true;
  TRACE(3, "\nCSystemDeviceScan   : Stop update thread...");
  StopUpdateThread(timeoutMs);
  TRACE(3, "\nCSystemDeviceScan   : Start termination sequence...");
  if (m_ScanGate.Wait(timeoutMs, true) != kWaitDone) {
    TRACE(1, "\nCSystemDeviceScan   : WARNING! Pending calls not terminated within %d seconds!\n",
          static_cast<int>(timeoutMs / 1000));
  }
  const bool given = m_ScanGate.Set();
  TRACE(3, "\nCSystemDeviceScan   : ... termination sequence completed!");
  return given ? 1 : 0;
}

void* CSystemDeviceScan::LaunchAsThread_WatchPartitions(void* scan) {
  if (scan != nullptr) static_cast<CSystemDeviceScan*>(scan)->WatchPartitions();
  TRACE(1, "THREAD_RETURN: ## INFO: Thread = 0x%08X exited, Return = 0x%08x##\n",
        static_cast<unsigned int>(pthread_self()), 0U);
  return nullptr;
}

void CSystemDeviceScan::WatchPartitions() {
  TRACE(1, "\nCSystemDeviceScan   : START THREAD WatchPartitions()");
  if (m_ExitRequested) {
    TRACE(2, "\nCSystemDeviceScan   : WatchPartitions() terminated!");
  } else {
    do {
      TRACE(3, "\nCSystemDeviceScan   : Scan system volumes ...");
      UpdateVolumes();
      TRACE(3, "\nCSystemDeviceScan   : Wait %d seconds for next volume information update scan",
            static_cast<int>(kUpdateSeconds));
    } while (m_ExitEvent.Wait(kUpdateSeconds * 1000) == kWaitTimedOut && !m_ExitRequested);
  }
  TRACE(1, "\nCSystemDeviceScan   : EXIT THREAD WatchPartitions()");
}

// A round that runs out of memory is left out: the thread must not take the process down, and the next one may succeed.
void CSystemDeviceScan::UpdateVolumes() {
  try {
    ScanVolumesUnlessStopped();
  } catch (const std::exception&) {
    return;
  }
}
