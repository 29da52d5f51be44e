#include "platform/thread_calls.h"

#include <dlfcn.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <utility>

namespace {

template <class Function>
Function* System(Function*, const char* name) {
  return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

bool Fails(thread_calls::Failing what) {
  if (thread_calls::failing != what) return false;
  thread_calls::failing = thread_calls::Failing::kNothing;
  return true;
}

}  // namespace

extern "C" int pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
  static auto* const real = System(&pthread_cond_wait, "pthread_cond_wait");
  ++thread_calls::entered;
  const int result = real(condition, mutex);
  ++thread_calls::left;
  return result;
}

extern "C" int pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec* deadline) {
  static auto* const real = System(&pthread_cond_timedwait, "pthread_cond_timedwait");
  ++thread_calls::entered;
  const int result = real(condition, mutex, deadline);
  ++thread_calls::left;
  return result;
}

extern "C" int pthread_condattr_setclock(pthread_condattr_t* attributes, clockid_t clock) noexcept {
  static auto* const real = System(&pthread_condattr_setclock, "pthread_condattr_setclock");
  return Fails(thread_calls::Failing::kSetClock) ? EAGAIN : real(attributes, clock);
}

extern "C" int pthread_cond_init(pthread_cond_t* condition, const pthread_condattr_t* attributes) noexcept {
  static auto* const real = System(&pthread_cond_init, "pthread_cond_init");
  return Fails(thread_calls::Failing::kCondInit) ? EAGAIN : real(condition, attributes);
}

extern "C" int pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) noexcept {
  static auto* const real = System(&pthread_mutex_init, "pthread_mutex_init");
  return Fails(thread_calls::Failing::kMutexInit) ? EAGAIN : real(mutex, attributes);
}

extern "C" int nanosleep(const timespec* time, timespec* remaining) {
  static auto* const real = System(&nanosleep, "nanosleep");
  if (!thread_calls::shortSleeps) return real(time, remaining);
  thread_calls::slept += static_cast<int>(time->tv_sec);
  const timespec millisecond = {0, 1'000'000};
  return real(&millisecond, nullptr);
}

extern "C" unsigned int sleep(unsigned int seconds) {
  const timespec time = {static_cast<time_t>(seconds), 0};
  return ::nanosleep(&time, nullptr) == 0 ? 0 : seconds;
}
