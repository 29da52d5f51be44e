#include "inventory/scan_gate.h"

#include <algorithm>

namespace {

constexpr unsigned int kExitCheckMs = 50;

}  // namespace

CSystemDeviceScan::GateHold::GateHold(CSystemDeviceScan& scan, unsigned int timeoutMs, bool stopsOnExit)
    : m_Scan(scan), m_Lists(scan.m_ListLock, std::defer_lock) {
  {
    const std::lock_guard lock(m_Scan.m_CallLock);
    ++m_Scan.m_PendingCalls;
  }
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  if (!WaitForGate(timeoutMs, stopsOnExit)) return;
  if (!m_Lists.try_lock_until(deadline)) m_Scan.m_ScanGate.Set();
}

// The object may be destroyed as soon as the lock of the counter is free.
CSystemDeviceScan::GateHold::~GateHold() {
  GiveBack();
  const std::lock_guard lock(m_Scan.m_CallLock);
  if (--m_Scan.m_PendingCalls == 0) m_Scan.m_CallEnded.notify_all();
}

void CSystemDeviceScan::GateHold::GiveBack() {
  if (!m_Lists.owns_lock()) return;
  m_Lists.unlock();
  m_Scan.m_ScanGate.Set();
}

bool CSystemDeviceScan::GateHold::WaitForGate(unsigned int timeoutMs, bool stopsOnExit) const {
  if (!stopsOnExit) return m_Scan.m_ScanGate.Wait(timeoutMs, true) == kWaitDone;
  for (unsigned int waited = 0; !m_Scan.m_ExitRequested && waited < timeoutMs; waited += kExitCheckMs) {
    const int result = m_Scan.m_ScanGate.Wait(std::min(kExitCheckMs, timeoutMs - waited), true);
    if (result != kWaitTimedOut) return result == kWaitDone;
  }
  return false;
}
