#include "platform/thread.h"

#include <sched.h>

#include <cerrno>
#include <new>
#include <utility>

#include "platform/cancellation.h"
#include "platform/critical_section.h"
#include "platform/wait_result.h"
#include "trace/debug.h"

// Shared by a running thread and its CThread, so that the object knows whether the identifier is still good: that of a
// detached thread goes to other threads as soon as it has ended.
struct CThreadRecord {
  CThread::Function function;
  void* argument;
  std::shared_ptr<CThreadRecord> self;  // the thread's own reference, until it runs
  CCriticalSection lock;                // while it is held, a thread that runs cannot end
  bool isRunning = true;                // guarded by the lock
};

namespace {

class ThreadAttributes {
 public:
  ThreadAttributes() : m_Error(pthread_attr_init(&m_Attributes)) {}
  ~ThreadAttributes() {
    if (m_Error == 0) pthread_attr_destroy(&m_Attributes);
  }
  ThreadAttributes(const ThreadAttributes&) = delete;
  ThreadAttributes& operator=(const ThreadAttributes&) = delete;
  int Error() const { return m_Error; }
  pthread_attr_t& Get() { return m_Attributes; }

 private:
  pthread_attr_t m_Attributes = {};
  const int m_Error;
};

// Marks the end of a thread, also when it is cancelled.
class EndOfThread {
 public:
  explicit EndOfThread(CThreadRecord& record) : m_Record(record) {}
  ~EndOfThread() {
    const CCriticalSectionLock lock(m_Record.lock);
    m_Record.isRunning = false;
  }
  EndOfThread(const EndOfThread&) = delete;
  EndOfThread& operator=(const EndOfThread&) = delete;

 private:
  CThreadRecord& m_Record;
};

void* RunThread(void* argument) {
  const std::shared_ptr<CThreadRecord> record = std::move(static_cast<CThreadRecord*>(argument)->self);
  const EndOfThread end(*record);
  return record->function(record->argument);
}

// Null when there is no memory.
std::shared_ptr<CThreadRecord> NewRecord(CThread::Function function, void* argument) {
  try {
    auto record = std::make_shared<CThreadRecord>();
    record->function = function;
    record->argument = argument;
    record->self = record;
    return record;
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

bool SetDetached(pthread_attr_t& attributes) {
  const int error = pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  if (error != 0) TRACE(2, "\npthread_attr_setdetachstate failed: %d", error);
  return error == 0;
}

bool SetPriority(pthread_attr_t& attributes, unsigned long priority) {
  int error = pthread_attr_setschedpolicy(&attributes, SCHED_RR);
  if (error != 0) {
    TRACE(2, "\npthread_attr_setschedpolicy failed: %d", error);
    return false;
  }
  sched_param parameters{};
  error = pthread_attr_getschedparam(&attributes, &parameters);
  if (error != 0) {
    TRACE(2, "\npthread_attr_getschedparam failed: %d", error);
    return false;
  }
  parameters.sched_priority = static_cast<int>(priority);
  error = pthread_attr_setschedparam(&attributes, &parameters);
  if (error != 0) {
    TRACE(2, "\npthread_attr_setschedparam failed: error=%d priority=%d", error, static_cast<int>(priority));
    return false;
  }
  return true;
}

}  // namespace

CThread::~CThread() {
  const CancellationBlock block;
  if (KillAliveThread && handle != 0) Kill();
  LetGo();
}

bool CThread::Start(Function function, void* argument, unsigned long priority, bool suspend, uint32_t stackSize,
                    unsigned long, bool waitable) {
  TRACE(5, "\nCThread::Start: Start a thread, Prio=%d, Suspend=%d, StackSize=0x%08x, Waitable=%d, KillAliveThread=%d",
        static_cast<int>(priority), suspend, stackSize, waitable, KillAliveThread);
  if (KillAliveThread) Kill();
  LetGo();
  Waitable = waitable;
  ThreadAttributes attributes;
  if (attributes.Error() != 0) {
    TRACE(2, "\npthread_attr_init failed: %d", attributes.Error());
    return false;
  }
  TRACE(4, "\npthread_attr_init: %d", attributes.Error());
  if (!Waitable && !SetDetached(attributes.Get())) return false;
  TRACE(2, "\nThreadPrio=%d", static_cast<int>(priority));
  if (priority != 0 && !SetPriority(attributes.Get(), priority)) return false;
  if (!CreateThread(attributes.Get(), function, argument)) return false;
  TRACE(2, "\nCThread::Start: thread=0x%08X created, Prio=%d, Waitable=%d, StackSize=0x%x", TraceId(),
        static_cast<int>(priority), Waitable, stackSize);
  ::sched_yield();
  return true;
}

bool CThread::CreateThread(const pthread_attr_t& attributes, Function function, void* argument) {
  std::shared_ptr<CThreadRecord> record = NewRecord(function, argument);
  pthread_t created = 0;
  const int error = record != nullptr ? pthread_create(&created, &attributes, RunThread, record.get()) : ENOMEM;
  if (error != 0) {
    if (record != nullptr) record->self.reset();
    TRACE(2, "\npthread_create failed: %d", error);
    return false;
  }
  handle = created;
  m_Record = std::move(record);
  return true;
}

bool CThread::Kill(uint32_t) {
  TRACE(1, "\nCThread::Kill: Try to kill the Thread = 0x%08X", TraceId());
  if (handle == 0) {
    TRACE(1, "\nCThread::Kill: Thread = 0x0%08X doesn't exist !", TraceId());
    return false;
  }
  if (!Waitable) return CancelDetached();
  TRACE(1, "\nCThread::Kill: Try to join a joinable Thread = 0x%08X", TraceId());
  return Join("Kill");
}

bool CThread::Join(const char* operation) {
  void* result = nullptr;
  const int error = pthread_join(handle, &result);
  if (error != 0) {
    TRACE(1, "\nCThread::%s: ERROR ! ThreadJoin failed, Thread = 0x%08X, Err = 0x%08x", operation, TraceId(),
          static_cast<unsigned int>(error));
    return false;
  }
  TRACE(1, "\nCThread::%s: a joinable Thread = 0x%08X has terminated, pstat=%p", operation, TraceId(), result);
  handle = 0;
  m_Record.reset();
  return true;
}

bool CThread::CancelDetached() {
  const unsigned int id = TraceId();
  TRACE(1, "\nCThread::Kill: Try to kill a non-joinable Thread = 0x0%08X", id);
  const pthread_t thread = std::exchange(handle, 0);
  const std::shared_ptr<CThreadRecord> record = std::move(m_Record);
  const CCriticalSectionLock lock(record->lock);
  if (!record->isRunning) return true;
  TRACE(2, "\nCThread::Kill: Killing a non-joinable thread 0x%08X", id);
  const int error = pthread_cancel(thread);
  if (error != 0) {
    TRACE(2, "\nCThread::Kill: unable to cancel a non-joinable thread 0x%08X (err = 0x%08x)", id,
          static_cast<unsigned int>(error));
    return false;
  }
  TRACE(2, "\nCThread::Kill: a non-joinable thread 0x%08X cancel invoked", id);
  return true;
}

bool CThread::WaitForTermination(uint32_t timeoutMs) {
  if (handle == 0) {
    TRACE(1, "\nCThread::WaitForTermination: Thread = 0x0%08X doesn't exist !", TraceId());
    return true;
  }
  if (timeoutMs != kWaitForever) {
    TRACE(1, "\nCThread::WaitForTermination: WARNING: can't wait for Thread = 0x%08X termination with timeout",
          TraceId());
  }
  if (!Waitable) {
    TRACE(1, "\nCThread::WaitForTermination: WARNING: Can't wait for detached thread 0x%08X", TraceId());
    return false;
  }
  return Join("WaitForTermination");
}

bool CThread::IsAlive() const {
  if (handle == 0) return false;
  const CCriticalSectionLock lock(m_Record->lock);
  return m_Record->isRunning;
}

// Forgets a thread that is still held. A joinable one becomes detached, so that its end frees what it holds.
void CThread::LetGo() {
  if (handle != 0 && Waitable) pthread_detach(handle);
  handle = 0;
  m_Record.reset();
}
