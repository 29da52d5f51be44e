#include "platform/semaphore.h"

#include <semaphore.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <ctime>
#include <memory>
#include <new>
#include <utility>

#include "platform/named_objects.h"
#include "platform/never_destroyed.h"

// The semaphore itself, owned jointly by its handles.
struct CSemaphoreData : SharedObject {
  sem_t semaphore = {};
};

namespace {

constinit NeverDestroyed<NamedObjects<CSemaphoreData>> g_Semaphores;

// Null when there is no memory or the system refuses.
CSemaphoreData* NewSemaphore(long initialCount, long maxCount) {
  if (initialCount < 0 || maxCount < 0 || maxCount > SEM_VALUE_MAX) return nullptr;
  std::unique_ptr<CSemaphoreData> created(new (std::nothrow) CSemaphoreData);
  if (created == nullptr) return nullptr;
  // Starting with the maximum and taking the difference would leave the same count.
  const auto count = static_cast<unsigned int>(std::min(initialCount, maxCount));
  return ::sem_init(&created->semaphore, 0, count) == 0 ? created.release() : nullptr;
}

bool DestroySemaphore(CSemaphoreData* semaphore) {
  const bool destroyed = ::sem_destroy(&semaphore->semaphore) == 0;
  delete semaphore;
  return destroyed;
}

CSemaphoreData* JoinOrCreate(long initialCount, long maxCount, const char* name) {
  const CCriticalSectionLock lock(g_Semaphores.object.Lock());
  if (CSemaphoreData* found = g_Semaphores.object.Join(name)) return found;
  CSemaphoreData* created = NewSemaphore(initialCount, maxCount);
  if (created == nullptr || g_Semaphores.object.Register(*created, name)) return created;
  DestroySemaphore(created);
  return nullptr;
}

}  // namespace

CSemaphore::~CSemaphore() {
  Delete();
}

bool CSemaphore::Create(long initialCount, long maxCount, const char* name) {
  if (data != nullptr && !Delete()) return false;
  data = name != nullptr ? JoinOrCreate(initialCount, maxCount, name) : NewSemaphore(initialCount, maxCount);
  return data != nullptr;
}

bool CSemaphore::Delete() {
  CSemaphoreData* semaphore = std::exchange(data, nullptr);
  if (semaphore == nullptr) return false;
  {
    const CCriticalSectionLock lock(g_Semaphores.object.Lock());
    if (!g_Semaphores.object.Drop(*semaphore)) return false;
  }
  return DestroySemaphore(semaphore);
}

int CSemaphore::Wait(uint32_t timeoutMs) const {
  if (data == nullptr) return kWaitFailed;
  if (timeoutMs == kWaitForever) return ::sem_wait(&data->semaphore) == 0 ? kWaitDone : kWaitFailed;
  timespec deadline{};
  clock_gettime(CLOCK_MONOTONIC, &deadline);
  deadline.tv_sec += static_cast<time_t>(timeoutMs / 1000) + (timeoutMs % 1000 != 0 ? 1 : 0);
  while (::sem_clockwait(&data->semaphore, CLOCK_MONOTONIC, &deadline) != 0) {
    if (errno == ETIMEDOUT) return kWaitTimedOut;
    if (errno != EINTR) return kWaitFailed;
  }
  return kWaitDone;
}

bool CSemaphore::Release(long count) const {
  if (data == nullptr || count < 1) return false;
  for (long posted = 0; posted < count; ++posted) {
    if (::sem_post(&data->semaphore) != 0) return false;
  }
  return true;
}
