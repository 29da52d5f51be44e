#pragma once

#include <cstdint>

#include "platform/export.h"
#include "platform/wait_result.h"

struct CSemaphoreData;

// Handle of a counting semaphore within the process.
//
// Handles created with the same name share one semaphore, which lives as long as its last handle; its name is free
// again afterwards. Handles are not copied: sharing is by name.
//
// Threads: Wait and Release may be called from any thread. Create, Delete and destruction need the handle to
// themselves, and the last handle may only go when no thread waits. A cancelled thread leaves Wait without a trace.
// Failure: results only, nothing is thrown; a failed Create leaves the handle without a semaphore.
class RAVD_EXPORT CSemaphore {
 public:
  // A handle without a semaphore.
  constexpr CSemaphore() = default;
  // As Delete.
  ~CSemaphore();
  CSemaphore(const CSemaphore&) = delete;
  CSemaphore& operator=(const CSemaphore&) = delete;

  // A new semaphore with the count initialCount, or maxCount where that is less; the maximum is not enforced later.
  // With a name (null: none) that a semaphore already has, this handle joins it and both counts are dropped; otherwise
  // the new semaphore is registered under the name. A semaphore that the handle had before is deleted first, and when
  // that returns false nothing is created. False also for a negative count and for one above SEM_VALUE_MAX.
  bool Create(long initialCount, long maxCount, const char* name);

  // Gives the semaphore back. True when this was its last handle and it could be destroyed; false without a semaphore
  // and while other handles share it, but the handle is empty in any case.
  bool Delete();

  // Takes one as soon as there is one. kWaitForever blocks, and an interruption by a signal is a failure. Any other
  // timeoutMs is honoured in whole seconds of the monotonic clock, rounded up, and an interruption waits on; 0 tries
  // once. Returns kWaitDone, kWaitTimedOut or kWaitFailed.
  int Wait(uint32_t timeoutMs) const;

  // Gives count back, one by one. False without a semaphore, for a count below 1, and at the first one that the system
  // refuses because the count would exceed SEM_VALUE_MAX; those before it remain given.
  bool Release(long count) const;

 private:
  CSemaphoreData* data = nullptr;
};
