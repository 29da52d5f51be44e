#pragma once

#include <atomic>
#include <cstdint>

#include "platform/export.h"
#include "platform/wait_result.h"

struct CEventData;

// Handle of an event: something that threads wait for and others signal.
//
// A manual-reset event stays signalled until Reset and releases everybody; an auto-reset event is cleared by the wait
// that it satisfies. Handles made with the same name, and handles assigned from one another, share one event; it lives
// as long as its last handle, and its name is free again afterwards.
//
// Threads: any thread may use any handle. Destroying a handle, or assigning to it, needs it to oneself, as with any
// object: nobody else may be about to enter an operation of that same handle. The end of the last handle waits, looking
// after 1, 2, 4 ms and so on up to once a second, until every thread has left Wait; so set an event before destroying
// it when somebody may wait on it without limit. A thread that was released may destroy the handle at once, even while
// the call that released it still returns. A thread may be cancelled inside Wait: it leaves the event as if it had
// timed out, and a signal that was meant for it goes to the next one.
//
// Failure: results only, nothing is thrown. When the construction fails (memory, system limits) the handle has no
// event: every operation returns false or -1, and destruction does nothing.
//
// Static objects may make, use and destroy events at any time, before main and after it.
// Lock order: the process-wide lock of the reference counts, then the lock of the names; the event's own mutex stands
// alone. Trace lines are written under any of them.
class RAVD_EXPORT CEvent {
 public:
  // With a name (null: none; an empty one is a name) that an event already has, this handle joins that event, and both
  // initialState and manualReset are dropped.
  CEvent(bool initialState, bool manualReset, const char* name = nullptr);
  // Gives the reference back.
  ~CEvent();

  // Shares with another handle and opens this one. The event that it had before is given back, as in destruction. A
  // handle without an event passes that on.
  CEvent& operator=(const CEvent& other);
  CEvent(const CEvent&) = delete;  // a new handle joins by name, or is assigned

  // Changes state and mode of the existing event; the name is ignored. False when the handle is closed or has no event,
  // and while a thread waits.
  bool Create(bool initialState, bool manualReset, const char* name);

  // Kept for callers that expect it: looks nothing up and changes nothing. Always true.
  bool Open(const char* name, uint32_t access, bool inherit);

  // True until Close, even for a handle without an event.
  bool IsOpen() const { return !closed.load(std::memory_order_acquire); }

  // Signals the event once more and makes this handle refuse every further operation but the assignment; other handles
  // of the event go on. False when closed already or without an event.
  bool Close();

  // Signals: releases every waiting thread (manual reset) or one (auto reset). Where somebody waited, the processor is
  // yielded so that the woken thread runs promptly. False when closed or without an event.
  bool Set() const;
  // Ends the signalled state. False when closed or without an event.
  bool Reset() const;

  // Releases whom Set would release among the threads that wait at this moment, and leaves the event not signalled.
  // Result as of Set.
  bool Pulse() const;

  // The state at this moment; takes no lock. False when closed or without an event.
  bool IsSet() const;

  // Waits up to timeoutMs milliseconds of the monotonic clock; 0 only looks, kWaitForever has no limit. Returns
  // kWaitDone, kWaitTimedOut or kWaitFailed. A thread that waited when the event was signalled counts as signalled
  // whatever the state is by then, which is what makes Pulse work. alertable means nothing. Of an auto-reset event one
  // Set satisfies one wait, so such an event excludes like a lock: until the thread that it woke returns, those who
  // come by find it taken, also where IsSet still tells that it is signalled.
  int Wait(uint32_t timeoutMs, bool alertable = false) const;

 private:
  CEventData* UsableEvent() const { return IsOpen() ? data : nullptr; }
  bool Signal(bool stateAfter) const;  // Set and Pulse
  void JoinOrCreate(bool initialState, bool manualReset, const char* name);
  CEventData* DropReference();

  CEventData* data = nullptr;  // null: creation failed; changed only under the lock of the reference counts
  std::atomic<bool> closed = false;
};
