// A module to begin with. Rename it, give Work() something to do, and keep its test beside it.

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "daemon/module_abi.h"  // does not build where the layout would not fit the daemon
#include "daemon/switch_interface.h"
#include "switch/module.h"
#include "trace/debug.h"

namespace {

constexpr auto kInterval = std::chrono::seconds(10);

class MyModule {
 public:
  void Start() {
    m_Stopping = false;
    m_Thread = std::thread(&MyModule::Run, this);
  }

  // Wakes the thread and waits for it: its code is unloaded next.
  void Stop() {
    {
      const std::lock_guard<std::mutex> lock(m_Mutex);
      m_Stopping = true;
    }
    m_Wake.notify_one();
    m_Thread.join();
  }

 private:
  void Work() { TRACE(3, "\nMyModule            : working"); }

  void Run() {
    TRACE(4, "\nMyModule            : -> Run");
    std::unique_lock<std::mutex> lock(m_Mutex);
    while (!m_Stopping) {
      Work();
      m_Wake.wait_for(lock, kInterval, [this] { return m_Stopping; });
    }
    TRACE(4, "\nMyModule            : <- Run");
  }

  std::mutex m_Mutex;
  std::condition_variable m_Wake;
  bool m_Stopping = false;  // guarded by m_Mutex
  std::thread m_Thread;
};

MyModule module;

}  // namespace

extern "C" {

__attribute__((visibility("default"))) bool ModuleStart() {
  module.Start();
  return true;
}

__attribute__((visibility("default"))) void ModuleStop() {
  module.Stop();
}

__attribute__((visibility("default"))) void ModuleNotify(uint32_t event, void* data) {
  if (event == SW_NOTIFY_OS_SHUTDOWN) {
    TRACE(2, "\nMyModule            : the system goes down, run level %d", *static_cast<const int32_t*>(data));
  }
}
}
