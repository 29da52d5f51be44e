#pragma once

#include <pthread.h>

#include <atomic>

#include "platform/export.h"

// Recursive lock: a plain mutex with its owner and how often the owner has entered.
//
// Any thread may enter; a thread that owns the section enters again without blocking and must leave as often.
// Construction is constant initialisation and cannot fail, so a section with static storage is usable by code that
// runs before or after any other static object. This class never traces: the trace object stands on it.
class RAVD_EXPORT CCriticalSection {
 public:
  // Owned by nobody.
  constexpr CCriticalSection() = default;
  // Unlocks when the calling thread still owns the section, then destroys the mutex.
  ~CCriticalSection();
  CCriticalSection(const CCriticalSection&) = delete;
  CCriticalSection& operator=(const CCriticalSection&) = delete;

  // Blocks until the calling thread owns the section.
  void Enter() {
    if (!initialized) return;
    const pthread_t self = pthread_self();
    // Only the owner ever stores its own identifier, so this read is decisive without holding the mutex.
    if (owner.load(std::memory_order_relaxed) != self) {
      if (pthread_mutex_trylock(&mutex) != 0) Wait();
      owner.store(self, std::memory_order_relaxed);
    }
    ++count;
  }

  // Undoes one Enter. Does nothing when the calling thread is not the owner.
  void Leave() {
    if (!initialized || owner.load(std::memory_order_relaxed) != pthread_self()) return;
    if (--count == 0) {
      owner.store(0, std::memory_order_relaxed);
      pthread_mutex_unlock(&mutex);
    }
  }

  // For pthread_cleanup_push: gives the whole section back, however often it was entered.
  static void CleanupHandlerForCritSecMutex(void* section);

 private:
  // Most holders are done within a few hundred instructions: looking again after pauses that grow, for forty
  // microseconds in all, costs less than the sleep and the wake-up of a thread.
  [[gnu::noinline]] void Wait() {
    constexpr unsigned int kLongestPause = 1024;
    for (unsigned int pause = 1; pause <= kLongestPause; pause *= 2) {
      for (unsigned int left = pause; left > 0; --left)
        __builtin_ia32_pause();
      if (pthread_mutex_trylock(&mutex) == 0) return;
    }
    pthread_mutex_lock(&mutex);
  }

  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  std::atomic<pthread_t> owner = 0;  // 0 = none
  unsigned int count = 0;            // guarded by the mutex
  bool initialized = true;           // false: Enter and Leave do nothing
};

// Holds a section for a scope; leaves it on every way out, the unwinding of a cancelled thread included.
class CCriticalSectionLock {
 public:
  // Enters the section, which is borrowed and outlives the lock.
  explicit CCriticalSectionLock(CCriticalSection& section) : m_Section(section) { m_Section.Enter(); }
  // Leaves it.
  ~CCriticalSectionLock() { m_Section.Leave(); }
  CCriticalSectionLock(const CCriticalSectionLock&) = delete;
  CCriticalSectionLock& operator=(const CCriticalSectionLock&) = delete;

 private:
  CCriticalSection& m_Section;
};
