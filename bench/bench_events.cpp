#include <benchmark/benchmark.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>

#include "platform/event.h"

// CEvent next to the straightforward event of the standard library and, where nothing blocks, next to the floor: a
// flag that is set and cleared without any lock.
namespace {

class AutoEvent {
 public:
  void Set() { m_Event.Set(); }
  bool Look() { return m_Event.Wait(0) == kWaitDone; }
  void Wait() { m_Event.Wait(kWaitForever); }

 private:
  CEvent m_Event{false, false};
};

class StdEvent {
 public:
  void Set() {
    {
      const std::lock_guard<std::mutex> lock(m_Mutex);
      m_IsSignaled = true;
    }
    m_Condition.notify_one();
  }
  bool Look() {
    const std::lock_guard<std::mutex> lock(m_Mutex);
    return std::exchange(m_IsSignaled, false);
  }
  void Wait() {
    std::unique_lock<std::mutex> lock(m_Mutex);
    m_Condition.wait(lock, [this] { return m_IsSignaled; });
    m_IsSignaled = false;
  }

 private:
  std::mutex m_Mutex;
  std::condition_variable m_Condition;
  bool m_IsSignaled = false;
};

class FlagEvent {
 public:
  void Set() { m_IsSignaled.store(true, std::memory_order_release); }
  bool Look() { return m_IsSignaled.load(std::memory_order_acquire); }
  void Wait() {
    while (!m_IsSignaled.exchange(false, std::memory_order_acq_rel)) {
    }
  }

 private:
  std::atomic<bool> m_IsSignaled = false;
};

template <class Event>
void SetAndWait(benchmark::State& state) {
  Event event;
  for (auto _ : state) {
    event.Set();
    event.Wait();
  }
}

template <class Event>
void LookAtUnset(benchmark::State& state) {
  Event event;
  for (auto _ : state)
    benchmark::DoNotOptimize(event.Look());
}

// One iteration wakes two sleepers: the other thread, and by its answer this one.
template <class Event>
void WakeAndAnswer(benchmark::State& state) {
  Event ping;
  Event pong;
  std::atomic<bool> isDone = false;
  std::thread answerer([&] {
    for (ping.Wait(); !isDone; ping.Wait())
      pong.Set();
  });
  for (auto _ : state) {
    ping.Set();
    pong.Wait();
  }
  isDone = true;
  ping.Set();
  answerer.join();
}

BENCHMARK(SetAndWait<AutoEvent>);
BENCHMARK(SetAndWait<StdEvent>);
BENCHMARK(SetAndWait<FlagEvent>);
BENCHMARK(LookAtUnset<AutoEvent>);
BENCHMARK(LookAtUnset<StdEvent>);
BENCHMARK(LookAtUnset<FlagEvent>);
BENCHMARK(WakeAndAnswer<AutoEvent>)->UseRealTime();
BENCHMARK(WakeAndAnswer<StdEvent>)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
