// A module to copy: its thread traces a heartbeat at several levels until the module is stopped.

#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "daemon/switch_interface.h"
#include "switch/module.h"
#include "trace/debug.h"

namespace {

constexpr auto kInterval = std::chrono::milliseconds(500);

class Heartbeat {
 public:
  void Start() { m_Thread = std::thread(&Heartbeat::Run, this); }

  void Stop() {
    {
      const std::lock_guard<std::mutex> lock(m_Mutex);
      m_Stopping = true;
    }
    m_Wake.notify_one();
    m_Thread.join();
  }

 private:
  void Run() {
    TRACE(2, "\nHeartbeat           : thread runs in process %d", static_cast<int>(getpid()));
    std::unique_lock<std::mutex> lock(m_Mutex);
    for (unsigned int beat = 1; !m_Stopping; ++beat) {
      TRACE(3, "\nHeartbeat           : beat %u", beat);
      TRACE(5, "\nHeartbeat           : next beat in %d ms", static_cast<int>(kInterval.count()));
      if (beat % 10 == 0) TRACE(1, "\nHeartbeat           : WARNING! %u beats and nobody stopped me", beat);
      m_Wake.wait_for(lock, kInterval, [this] { return m_Stopping; });
    }
    TRACE(2, "\nHeartbeat           : thread ends");
  }

  std::mutex m_Mutex;
  std::condition_variable m_Wake;
  bool m_Stopping = false;  // guarded by m_Mutex
  std::thread m_Thread;
};

Heartbeat heartbeat;

}  // namespace

extern "C" {

__attribute__((visibility("default"))) bool ModuleStart() {
  heartbeat.Start();
  return true;
}

__attribute__((visibility("default"))) void ModuleStop() {
  heartbeat.Stop();
}

__attribute__((visibility("default"))) void ModuleNotify(uint32_t event, void* data) {
  if (event == SW_NOTIFY_OS_SHUTDOWN) {
    TRACE(2, "\nHeartbeat           : the system goes down, run level %d", *static_cast<const int32_t*>(data));
  } else if (event == SW_NOTIFY_STOP) {
    // By name instead of the macro: both ways work from a module.
    Debug.PrintAlways(0, "\nHeartbeat           : the daemon is about to stop");
  }
}
}
