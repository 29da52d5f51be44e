#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

// A lock that is waited for up to a point in time; not recursive. For std::unique_lock.
class TimedLock {
 public:
  void lock() {
    std::unique_lock lock(m_Mutex);
    m_Free.wait(lock, [this] { return !m_IsHeld; });
    m_IsHeld = true;
  }

  // False when the lock did not come free in time.
  bool try_lock_until(std::chrono::steady_clock::time_point deadline) {
    std::unique_lock lock(m_Mutex);
    if (!m_Free.wait_until(lock, deadline, [this] { return !m_IsHeld; })) return false;
    m_IsHeld = true;
    return true;
  }

  void unlock() {
    const std::lock_guard lock(m_Mutex);
    m_IsHeld = false;
    m_Free.notify_one();
  }

 private:
  std::mutex m_Mutex;
  std::condition_variable m_Free;
  bool m_IsHeld = false;  // guarded by m_Mutex
};
