#include "platform/event.h"

#include <pthread.h>
#include <sched.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <memory>
#include <new>
#include <thread>
#include <utility>

#include "platform/cancellation.h"
#include "platform/critical_section.h"
#include "platform/named_objects.h"
#include "platform/never_destroyed.h"
#include "trace/debug.h"

// The event itself, owned jointly by its handles. The state is written under the mutex, save for atomic reads
// elsewhere.
//
// Who is woken is decided when the event is signalled, not when a thread happens to run: a signal promises wake-ups to
// threads that wait by then, and whoever comes later takes neither a promised wake-up nor the state that goes with it.
// Until the last promise is kept the state of an auto-reset event stays as the signal left it.
struct CEventData : SharedObject {
  void* Address() { return this; }  // for %p
  const char* NameText() const { return name != nullptr ? name.get() : "anon"; }
  bool Signaled() const { return IsSignaled.load(std::memory_order_acquire); }
  void SetSignaled(bool on) { IsSignaled.store(on, std::memory_order_release); }
  bool Manual() const { return IsManual.load(std::memory_order_relaxed); }

  bool Promise();
  bool TakeState();

  pthread_cond_t cond = {};
  pthread_mutex_t mutex = {};  // guards IsManual, IsSignaled and the numbers of threads
  std::atomic<bool> IsManual = false;
  std::atomic<bool> IsSignaled = false;
  uint32_t waiters = 0;   // threads inside Wait
  uint32_t eligible = 0;  // those of them that waited already at the last signal
  uint32_t promised = 0;  // wake-ups that eligible threads have not taken yet; never more than eligible
  uint64_t signals = 0;   // how often the event was signalled: tells who came before the last time
  pthread_condattr_t condAttr = {};
};

// Releases all who wait (manual reset) or one more of them (auto reset). The mutex is held, as by what follows.
bool CEventData::Promise() {
  ++signals;
  eligible = waiters;
  promised = Manual() ? waiters : std::min(promised + 1, waiters);
  return (Manual() ? pthread_cond_broadcast(&cond) : pthread_cond_signal(&cond)) == 0;
}

// For a thread that need not wait.
bool CEventData::TakeState() {
  if (!Signaled()) return false;
  if (Manual()) return true;
  if (promised > 0) return false;
  SetSignaled(false);
  return true;
}

namespace {

constexpr std::chrono::milliseconds kFirstDesertedPause{1};
constexpr std::chrono::milliseconds kLongestDesertedPause{1000};

constinit NeverDestroyed<NamedObjects<CEventData>> g_Events;

class MutexLock {
 public:
  explicit MutexLock(pthread_mutex_t& mutex) : m_Mutex(mutex), m_IsHeld(pthread_mutex_lock(&mutex) == 0) {}
  ~MutexLock() {
    if (m_IsHeld) pthread_mutex_unlock(&m_Mutex);
  }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;
  bool IsHeld() const { return m_IsHeld; }

 private:
  pthread_mutex_t& m_Mutex;
  const bool m_IsHeld;
};

// One thread inside Wait. The mutex is held on every way in and out, the unwinding of a cancelled thread included.
class Waiter {
 public:
  explicit Waiter(CEventData& event) : m_Event(event), m_Entry(event.signals) { ++m_Event.waiters; }
  ~Waiter() {
    --m_Event.waiters;
    if (IsEligible()) --m_Event.eligible;
    if (!m_HasTaken) HandOn();
  }
  Waiter(const Waiter&) = delete;
  Waiter& operator=(const Waiter&) = delete;

  // Takes a promised wake-up; the last one takes the state with it.
  bool TakePromise() {
    if (!IsEligible() || m_Event.promised == 0) return false;
    if (--m_Event.promised == 0 && !m_Event.Manual()) m_Event.SetSignaled(false);
    m_HasTaken = true;
    return true;
  }

 private:
  bool IsEligible() const { return m_Entry != m_Event.signals; }

  // A cancelled thread may have been promised a wake-up, or may have swallowed that of another.
  void HandOn() {
    const bool isForfeited = m_Event.promised > m_Event.eligible;
    if (isForfeited) --m_Event.promised;
    if (isForfeited && m_Event.Signaled()) {
      m_Event.Promise();
    } else if (m_Event.promised > 0) {
      pthread_cond_signal(&m_Event.cond);
    }
  }

  CEventData& m_Event;
  const uint64_t m_Entry;
  bool m_HasTaken = false;
};

int InitAttributes(pthread_condattr_t& attributes) {
  const int initResult = pthread_condattr_init(&attributes);
  if (initResult != 0) return initResult;
  const int result = pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
  if (result != 0) pthread_condattr_destroy(&attributes);
  return result;
}

// Makes the three system objects; on failure none is left.
bool InitSystemObjects(CEventData& event) {
  int result = InitAttributes(event.condAttr);
  if (result != 0) {
    TRACE(3,
          "pthread_condattr_setclock(): ## ERROR ##: Set CLOCK_MONOTONIC failed (ret=%d) for event %p <%s> "
          "(IsSignaled=%d)\n",
          result, event.Address(), event.NameText(), event.Signaled());
    return false;
  }
  result = pthread_cond_init(&event.cond, &event.condAttr);
  if (result != 0) {
    TRACE(3, "pthread_cond_init(), CLOCK_MONOTONIC: ## ERROR ##: failed (ret=%d) on event %p <%s> (IsSignaled=%d)\n",
          result, event.Address(), event.NameText(), event.Signaled());
    pthread_condattr_destroy(&event.condAttr);
    return false;
  }
  result = pthread_mutex_init(&event.mutex, nullptr);
  if (result != 0) {
    TRACE(3, "pthread_mutex_init(), CLOCK_MONOTONIC: ## ERROR ##: failed (ret=%d) on event %p <%s> (IsSignaled=%d)\n",
          result, event.Address(), event.NameText(), event.Signaled());
    pthread_cond_destroy(&event.cond);
    pthread_condattr_destroy(&event.condAttr);
    return false;
  }
  return true;
}

void DestroySystemObjects(CEventData& event) {
  pthread_cond_destroy(&event.cond);
  pthread_condattr_destroy(&event.condAttr);
  pthread_mutex_destroy(&event.mutex);
}

// Null when the event could not be made.
CEventData* NewEvent(bool initialState, bool manualReset) {
  std::unique_ptr<CEventData> event(new (std::nothrow) CEventData);
  if (event == nullptr) return nullptr;
  event->IsManual = manualReset;
  event->IsSignaled = initialState;
  return InitSystemObjects(*event) ? event.release() : nullptr;
}

// The lock of the events is held.
CEventData* NewNamedEvent(bool initialState, bool manualReset, const char* name) {
  CEventData* event = NewEvent(initialState, manualReset);
  if (event == nullptr || g_Events.object.Register(*event, name)) return event;
  DestroySystemObjects(*event);
  delete event;
  return nullptr;
}

void WaitUntilDeserted(CEventData& event) {
  for (auto pause = kFirstDesertedPause;; pause = std::min(2 * pause, kLongestDesertedPause)) {
    {
      const MutexLock lock(event.mutex);
      if (event.waiters == 0) return;
    }
    std::this_thread::sleep_for(pause);
  }
}

// Ends an event whose last reference is gone; null is none. the lock of the events is not held: this may take its time.
void DestroyEvent(CEventData* event) {
  if (event == nullptr) return;
  WaitUntilDeserted(*event);
  DestroySystemObjects(*event);
  TRACE(5, "deleting event %p <%s> (IsSignaled=%d)\n", event->Address(), event->NameText(), event->Signaled());
  delete event;
}

timespec DeadlineAfter(uint32_t timeoutMs) {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const long nanoseconds = static_cast<long>(timeoutMs % 1000) * 1'000'000 + now.tv_nsec;
  return {now.tv_sec + static_cast<time_t>(timeoutMs / 1000) + nanoseconds / 1'000'000'000,
          nanoseconds % 1'000'000'000};
}

// Blocks until released or late; the mutex is held. A wake-up without a promise is none.
int Block(CEventData& event, const timespec* deadline) {
  Waiter waiter(event);
  for (;;) {
    const int result = deadline == nullptr ? pthread_cond_wait(&event.cond, &event.mutex)
                                           : pthread_cond_timedwait(&event.cond, &event.mutex, deadline);
    if (waiter.TakePromise()) return kWaitDone;
    if (result == ETIMEDOUT) return kWaitTimedOut;
    if (result != 0 && result != EINTR) return kWaitFailed;
  }
}

}  // namespace

CEvent::CEvent(bool initialState, bool manualReset, const char* name) {
  const CancellationBlock block;
  if (name != nullptr) {
    JoinOrCreate(initialState, manualReset, name);
    return;
  }
  data = NewEvent(initialState, manualReset);
  if (data == nullptr) return;
  TRACE(5, "creating event %p <%s> (IsSignaled=%d)\n", data->Address(), data->NameText(), data->Signaled());
}

void CEvent::JoinOrCreate(bool initialState, bool manualReset, const char* name) {
  bool joined = false;
  {
    const CCriticalSectionLock lock(g_Events.object.Lock());
    data = g_Events.object.Join(name);
    joined = data != nullptr;
    if (!joined) data = NewNamedEvent(initialState, manualReset, name);
  }
  if (data == nullptr) return;
  if (!joined) {
    TRACE(5, "creating event %p <%s> (IsSignaled=%d)\n", data->Address(), data->NameText(), data->Signaled());
    return;
  }
  TRACE(3, "refCount for event %p <%s> incremented (IsSignaled=%d)\n", data->Address(), data->NameText(),
        data->Signaled());
  if (data->Manual() != manualReset) {
    TRACE(1, "WARNING: manual setting mismatch for event %p <%s>\n", data->Address(), data->NameText());
  }
}

CEvent::~CEvent() {
  const CancellationBlock block;
  CEventData* last = nullptr;
  {
    const CCriticalSectionLock lock(g_Events.object.Lock());
    last = DropReference();
  }
  DestroyEvent(last);
}

CEvent& CEvent::operator=(const CEvent& other) {
  if (this == &other) return *this;
  const CancellationBlock block;
  CEventData* last = nullptr;
  {
    const CCriticalSectionLock lock(g_Events.object.Lock());
    last = DropReference();
    closed.store(false, std::memory_order_release);
    data = other.data;
    if (data != nullptr) {
      ++data->refCount;
      TRACE(5, "incr refcount on event %p <%s> (IsSignaled=%d,IsManual=%d)\n", data->Address(), data->NameText(),
            data->Signaled(), data->Manual());
    }
  }
  DestroyEvent(last);
  return *this;
}

// Empties the handle; the lock of the events is held. Returns the event when nobody refers to it any more, for the
// caller to destroy once the lock is left; otherwise null. The trace line is written before that: afterwards the next
// handle to go may free the event.
CEventData* CEvent::DropReference() {
  CEventData* event = std::exchange(data, nullptr);
  if (event == nullptr) return nullptr;
  if (g_Events.object.Drop(*event)) return event;
  TRACE(5, "decr refcount on event %p <%s> (IsSignaled=%d)\n", event->Address(), event->NameText(), event->Signaled());
  return nullptr;
}

// The operations below take the event out of the handle once, on entry: while they run, a thread that they released may
// already be destroying the handle.

bool CEvent::Create(bool initialState, bool manualReset, const char*) {
  CEventData* const event = UsableEvent();
  if (event == nullptr) return false;
  const MutexLock lock(event->mutex);
  if (!lock.IsHeld() || event->waiters > 0) return false;
  if (event->Signaled() == initialState && event->Manual() == manualReset) return true;
  TRACE(5, "Create event %p <%s>, changing attributes (IsSignaled=%d,IsManual=%d) --> (IsSignaled=%d,IsManual=%d)\n",
        event->Address(), event->NameText(), event->Signaled(), event->Manual(), initialState, manualReset);
  event->IsManual.store(manualReset, std::memory_order_relaxed);
  event->SetSignaled(initialState);
  return true;
}

bool CEvent::Open(const char*, uint32_t, bool) {
  return true;
}

bool CEvent::Close() {
  CEventData* const event = data;
  if (event == nullptr || closed.exchange(true)) return false;
  TRACE(5, "Close event %p <%s> IsSignaled=%d --> IsSignaled=1\n", event->Address(), event->NameText(),
        event->Signaled());
  const MutexLock lock(event->mutex);
  event->SetSignaled(true);
  return event->Promise();
}

bool CEvent::Set() const {
  return Signal(true);
}

bool CEvent::Pulse() const {
  return Signal(false);
}

bool CEvent::Signal(bool stateAfter) const {
  CEventData* const event = UsableEvent();
  if (event == nullptr) return false;
  bool isWoken = false;
  bool hasWaiters = false;
  {
    const MutexLock lock(event->mutex);
    if (!lock.IsHeld()) return false;
    if (stateAfter) {
      TRACE(5, "Set event %p <%s> IsSignaled=%d --> IsSignaled=1\n", event->Address(), event->NameText(),
            event->Signaled());
    } else {
      TRACE(5, "Pulse event %p <%s> IsSignaled=%d --> IsSignaled=0\n", event->Address(), event->NameText(),
            event->Signaled());
    }
    event->SetSignaled(stateAfter);
    isWoken = event->Promise();
    hasWaiters = event->waiters > 0;
  }
  // With nobody to run, a yield is only lost time.
  if (hasWaiters) ::sched_yield();
  return isWoken;
}

bool CEvent::Reset() const {
  CEventData* const event = UsableEvent();
  if (event == nullptr) return false;
  const MutexLock lock(event->mutex);
  if (!lock.IsHeld()) return false;
  TRACE(5, "Reset event %p <%s>: IsSignaled=%d --> IsSignaled=0\n", event->Address(), event->NameText(),
        event->Signaled());
  event->SetSignaled(false);
  return true;
}

bool CEvent::IsSet() const {
  CEventData* const event = UsableEvent();
  if (event == nullptr) return false;
  const bool isSignaled = event->Signaled();
  TRACE(5, "Check event %p <%s> (IsSignaled=%d)\n", event->Address(), event->NameText(), isSignaled);
  return isSignaled;
}

int CEvent::Wait(uint32_t timeoutMs, bool) const {
  CEventData* const event = UsableEvent();
  if (event == nullptr) return kWaitFailed;
  const MutexLock lock(event->mutex);
  if (!lock.IsHeld()) return kWaitFailed;
  if (event->TakeState()) return kWaitDone;
  // The deadline would have passed by the time it is looked at, so neither the clock nor the condition is needed.
  if (timeoutMs == 0) return kWaitTimedOut;
  if (timeoutMs == kWaitForever) return Block(*event, nullptr);
  const timespec deadline = DeadlineAfter(timeoutMs);
  return Block(*event, &deadline);
}
