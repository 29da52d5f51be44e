#include "platform/critical_section.h"

CCriticalSection::~CCriticalSection() {
  if (!initialized) return;
  if (owner.load(std::memory_order_relaxed) == pthread_self() && count > 0) CleanupHandlerForCritSecMutex(this);
  pthread_mutex_destroy(&mutex);
}

void CCriticalSection::CleanupHandlerForCritSecMutex(void* section) {
  auto* self = static_cast<CCriticalSection*>(section);
  if (!self->initialized) return;
  self->owner.store(0, std::memory_order_relaxed);
  self->count = 0;
  pthread_mutex_unlock(&self->mutex);
}
