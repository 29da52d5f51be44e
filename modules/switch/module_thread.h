#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>

// The thread on which one module is called, with a deadline for each call.
//
// Used by one controlling thread. The thread is there from construction to destruction; one that does not come back
// from a call is lost: it is let go, and takes no further call. Exceptions of a call are caught, whatever they are, but
// for the unwinding of a thread that is cancelled.
class ModuleThread {
 public:
  enum class Result {
    kDone,     // it returned true
    kRefused,  // it returned false
    kThrew,    // it threw; Reason tells what
    kLost,     // it did not return in time, now or before
  };

  // False from IsRunning when the system gives no thread; every call is then kLost.
  ModuleThread();
  ~ModuleThread();
  ModuleThread(const ModuleThread&) = delete;
  ModuleThread& operator=(const ModuleThread&) = delete;

  // Calls the function there and waits up to that time. One that returns true too late is followed by `late`, on the
  // same thread; what both need has to outlive this object.
  Result Call(const std::function<bool()>& function, uint32_t timeoutMs, const std::function<void()>& late = {});

  bool IsLost() const { return m_IsLost; }
  // What the last call threw, or how long it was waited for.
  const std::string& Reason() const { return m_Reason; }

 private:
  struct Mailbox;
  static void Run(const std::shared_ptr<Mailbox>& mailbox);

  std::shared_ptr<Mailbox> m_Mailbox;  // with the thread, which may outlive this object
  std::thread m_Thread;
  bool m_IsLost = false;
  std::string m_Reason;
};
