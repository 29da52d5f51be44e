#pragma once

#include <chrono>

#include "inventory/system_device_scan.h"

// Keeps everybody else out of the lists of a CSystemDeviceScan for a scope. False when the time was up.
class CSystemDeviceScan::ListsHold {
 public:
  using Clock = std::chrono::steady_clock;

  explicit ListsHold(const CSystemDeviceScan& scan) : m_Scan(scan) {}
  ~ListsHold() { GiveBack(); }
  ListsHold(const ListsHold&) = delete;
  ListsHold& operator=(const ListsHold&) = delete;

  // stopsOnExit: as for GateHold.
  bool Take(Clock::time_point deadline, bool stopsOnExit);
  void GiveBack();
  bool IsHeld() const { return m_IsHeld; }

 private:
  const CSystemDeviceScan& m_Scan;
  bool m_IsHeld = false;
};

// One call's turn at the lists of a CSystemDeviceScan: waits for the gate, then for the lists, and gives both back when
// the call ends in whatever way. False when the time was up. Lives on the stack of the call, as long as the call
// touches the object.
//
// The gate alone does not keep calls apart: an event may let through a waiter that it woke and another thread that
// comes by before that one runs, and Terminate opens the gate when its time is up, whoever holds it.
class CSystemDeviceScan::GateHold {
 public:
  // stopsOnExit, for the update thread: the wait ends without the lists as soon as the thread shall exit. Whoever stops
  // the thread may hold them, so neither would get on otherwise.
  GateHold(CSystemDeviceScan& scan, unsigned int timeoutMs, bool stopsOnExit = false);
  ~GateHold() { GiveBack(); }
  GateHold(const GateHold&) = delete;
  GateHold& operator=(const GateHold&) = delete;

  explicit operator bool() const { return m_Lists.IsHeld(); }
  void GiveBack();

 private:
  // Makes the destructor of the object wait.
  class PendingCall {
   public:
    explicit PendingCall(CSystemDeviceScan& scan);
    ~PendingCall();
    PendingCall(const PendingCall&) = delete;
    PendingCall& operator=(const PendingCall&) = delete;

   private:
    CSystemDeviceScan& m_Scan;
  };

  bool WaitForGate(unsigned int timeoutMs, bool stopsOnExit) const;

  CSystemDeviceScan& m_Scan;
  const PendingCall m_Call;
  ListsHold m_Lists;
};
