#include "platform/semaphore.h"

#include <semaphore.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <ctime>
#include <memory>
#include <new>
#include <utility>

#include "platform/never_destroyed.h"
#include "platform/owned_text.h"
#include "platform/str_map.h"

// The semaphore itself, owned jointly by its handles.
struct CSemaphoreData {
  sem_t semaphore = {};
  uint32_t refCount = 1;         // guarded by the lock of the registry
  std::unique_ptr<char[]> name;  // null = none; fixed before the semaphore is shared
};

namespace {

// The named semaphores; its lock also guards the reference counts.
constinit NeverDestroyed<CStrMap> g_NamedSemaphores;

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

// The lock of the registry is held.
bool RegisterName(CSemaphoreData& semaphore, const char* name) {
  semaphore.name = CopyText(name);
  CStrMap::Entry* entry = semaphore.name != nullptr ? g_NamedSemaphores.object.Insert(name) : nullptr;
  if (entry == nullptr) return false;
  entry->value = &semaphore;
  return true;
}

CSemaphoreData* JoinOrCreate(long initialCount, long maxCount, const char* name) {
  const CCriticalSectionLock lock(g_NamedSemaphores.object);
  const CStrMap::Entry* entry = g_NamedSemaphores.object.Find(name);
  if (entry != nullptr) {
    auto* found = static_cast<CSemaphoreData*>(entry->value);
    ++found->refCount;
    return found;
  }
  CSemaphoreData* created = NewSemaphore(initialCount, maxCount);
  if (created == nullptr || RegisterName(*created, name)) return created;
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
    const CCriticalSectionLock lock(g_NamedSemaphores.object);
    if (--semaphore->refCount > 0) return false;
    if (semaphore->name != nullptr) g_NamedSemaphores.object.Remove(semaphore->name.get());
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
