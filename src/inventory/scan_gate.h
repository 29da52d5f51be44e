#pragma once

#include <chrono>
#include <mutex>

#include "inventory/system_device_scan.h"

// One call's turn at the lists of a CSystemDeviceScan: waits for the gate, and gives it back when the call ends in
// whatever way. False when the time was up. Lives on the stack of the call, as long as the call touches the object.
class CSystemDeviceScan::GateHold {
 public:
  // stopsOnExit, for the update thread: the wait ends without the gate as soon as the thread shall exit. Whoever stops
  // the thread may hold the gate, so neither would get on otherwise.
  GateHold(CSystemDeviceScan& scan, unsigned int timeoutMs, bool stopsOnExit = false);
  ~GateHold();
  GateHold(const GateHold&) = delete;
  GateHold& operator=(const GateHold&) = delete;

  explicit operator bool() const { return m_Lists.owns_lock(); }
  void GiveBack();

 private:
  using Clock = std::chrono::steady_clock;

  bool WaitForGate(unsigned int timeoutMs, bool stopsOnExit) const;

  CSystemDeviceScan& m_Scan;
  std::unique_lock<TimedLock> m_Lists;
};
