#include "inventory/scan_gate.h"

#include <algorithm>

namespace {

constexpr unsigned int kExitCheckMs = 50;

}  // namespace

bool CSystemDeviceScan::ListsHold::Take(Clock::time_point deadline, bool stopsOnExit) {
  std::unique_lock lock(m_Scan.m_CallLock);
  const auto canGoOn = [&] { return !m_Scan.m_ListsHeld || (stopsOnExit && m_Scan.m_ExitRequested); };
  if (!m_Scan.m_CallsChanged.wait_until(lock, deadline, canGoOn) || m_Scan.m_ListsHeld) return false;
  m_Scan.m_ListsHeld = true;
  m_IsHeld = true;
  return true;
}

void CSystemDeviceScan::ListsHold::GiveBack() {
  if (!m_IsHeld) return;
  m_IsHeld = false;
  const std::lock_guard lock(m_Scan.m_CallLock);
  m_Scan.m_ListsHeld = false;
  m_Scan.m_CallsChanged.notify_all();
}

CSystemDeviceScan::GateHold::PendingCall::PendingCall(CSystemDeviceScan& scan) : m_Scan(scan) {
  const std::lock_guard lock(m_Scan.m_CallLock);
  ++m_Scan.m_PendingCalls;
}

// The object may be destroyed as soon as the lock is free.
CSystemDeviceScan::GateHold::PendingCall::~PendingCall() {
  const std::lock_guard lock(m_Scan.m_CallLock);
  --m_Scan.m_PendingCalls;
  m_Scan.m_CallsChanged.notify_all();
}

CSystemDeviceScan::GateHold::GateHold(CSystemDeviceScan& scan, unsigned int timeoutMs, bool stopsOnExit)
    : m_Scan(scan), m_Call(scan), m_Lists(scan) {
  const auto deadline = ListsHold::Clock::now() + std::chrono::milliseconds(timeoutMs);
  if (!WaitForGate(timeoutMs, stopsOnExit)) return;
  if (!m_Lists.Take(deadline, stopsOnExit)) m_Scan.m_ScanGate.Set();
}

void CSystemDeviceScan::GateHold::GiveBack() {
  if (!m_Lists.IsHeld()) return;
  m_Lists.GiveBack();
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
