#include "platform/event.h"

#include <dlfcn.h>

#include <array>
#include <future>
#include <memory>
#include <random>
#include <regex>

#include "support/trace_capture.h"

namespace {

std::atomic<int> conditionWaits = 0;  // threads that have come to wait on a condition so far
thread_local bool mutexInitFails = false;
const CEvent untilExit(true, true, "until exit");  // made before main and destroyed after it

// Starts a thread that waits, and returns when it is blocked: the mutex of the event is free again only then.
std::future<int> StartWaiting(const CEvent& event) {
  const int before = conditionWaits;
  auto result = std::async(std::launch::async, [&event] { return event.Wait(kWaitForever); });
  while (conditionWaits == before)
    std::this_thread::yield();
  return result;
}

void WaitForOneOf(const std::future<int> (&waits)[2]) {
  for (size_t turn = 0; waits[turn % 2].wait_for(std::chrono::milliseconds(1)) != std::future_status::ready;)
    ++turn;
}

}  // namespace

// The test program's own versions: the system's, but counted or failing.
extern "C" int pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
  static auto* const real = reinterpret_cast<decltype(&pthread_cond_wait)>(::dlsym(RTLD_NEXT, "pthread_cond_wait"));
  ++conditionWaits;
  return real(condition, mutex);
}
extern "C" int pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) noexcept {
  static auto* const real = reinterpret_cast<decltype(&pthread_mutex_init)>(::dlsym(RTLD_NEXT, "pthread_mutex_init"));
  return mutexInitFails ? EAGAIN : real(mutex, attributes);
}

TEST(Event, WaitAndPulseFollowTheResetMode) {
  const CEvent one(false, false);
  EXPECT_TRUE(one.Set() && one.Set() && one.IsSet());
  EXPECT_EQ(one.Wait(0), 0);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(one.Wait(30), 102);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(30));
  std::future<int> both[] = {StartWaiting(one), StartWaiting(one)};
  EXPECT_TRUE(one.Pulse());
  WaitForOneOf(both);
  EXPECT_TRUE(one.Set());
  for (std::future<int>& wait : both)
    EXPECT_EQ(wait.get(), 0);
  EXPECT_EQ(one.Wait(0), 102) << "the pulse released both";

  const CEvent all(true, true);
  EXPECT_TRUE(all.Wait(0) == 0 && all.Wait(kWaitForever) == 0 && all.Reset());
  std::future<int> waits[] = {StartWaiting(all), StartWaiting(all), StartWaiting(all)};
  EXPECT_TRUE(all.Pulse());
  for (std::future<int>& wait : waits)
    EXPECT_EQ(wait.get(), 0);
  EXPECT_EQ(all.Wait(0), 102);
}

// An event as a lock: nobody meets anybody inside, and no signal is lost or doubled, whatever becomes of those who
// wait.
TEST(Event, AutoResetExcludes) {
  const char* seconds = std::getenv("RAVD_EVENT_SECONDS");  // for each number of threads; a short form without it
  for (const int threads : {2, 4, 8}) {
    const CEvent door(true, false);
    std::atomic<int> inside = 0;
    std::atomic<long> entries = 0, overlaps = 0, late = 0, cancelled = 0;
    const auto enter = [&](uint32_t timeoutMs) {
      if (door.Wait(timeoutMs) != kWaitDone) return ++late, void();
      if (++inside != 1) ++overlaps;
      if (++entries % 8 == 0) std::this_thread::yield();
      --inside;
      EXPECT_TRUE(door.Set());
    };
    const auto end =
        std::chrono::steady_clock::now() + std::chrono::seconds(seconds != nullptr ? std::atoi(seconds) : 0);
    const auto work = [&](unsigned int seed) {
      for (std::minstd_rand random(seed); entries < 3000 || std::chrono::steady_clock::now() < end;) {
        for (int entry = 0; entry < 20; ++entry)
          enter(std::array{kWaitForever, kWaitForever, 0U, 1U}[random() % 4]);
        std::thread victim([&] { enter(kWaitForever); });
        if (random() % 2 == 0) std::this_thread::yield();
        cancelled += ::pthread_cancel(victim.native_handle()) == 0 ? 1 : 0;
        victim.join();
      }
    };
    std::vector<std::thread> workers;
    for (int number = 0; number < threads; ++number)
      workers.emplace_back(work, number + 1);
    for (std::thread& worker : workers)
      worker.join();
    EXPECT_EQ(overlaps, 0);
    EXPECT_TRUE(door.Wait(0) == kWaitDone && door.Wait(0) == kWaitTimedOut) << "a signal was lost or doubled";
    std::printf("figure: %d threads: %ld entries, %ld of them with somebody inside, %ld late, %ld cancellations\n",
                threads, entries.load(), overlaps.load(), late.load(), cancelled.load());
  }
}

TEST(Event, ClosedHandleAndOneWithoutEventRefuse) {
  mutexInitFails = true;
  CEvent failed(true, true, "door");
  mutexInitFails = false;
  CEvent closed(false, false, "door");
  const CEvent other(false, false, "door");
  std::future<int> waits[] = {StartWaiting(closed), StartWaiting(closed)};
  EXPECT_TRUE(closed.Set());
  WaitForOneOf(waits);
  EXPECT_FALSE(closed.Create(false, false, nullptr)) << "the other thread waits";
  EXPECT_TRUE(closed.Close());
  for (std::future<int>& wait : waits)
    EXPECT_EQ(wait.get(), 0);
  EXPECT_TRUE(other.Set() && !closed.IsOpen() && failed.IsOpen());
  for (CEvent* event : {&closed, &failed}) {
    EXPECT_FALSE(event->Set() || event->Reset() || event->Pulse() || event->IsSet() || event->Close());
    EXPECT_FALSE(event->Create(true, true, nullptr) || event->Wait(kWaitForever) != -1);
  }
  EXPECT_TRUE(other.IsSet());
  closed = failed;
  EXPECT_TRUE(closed.IsOpen() && closed.Wait(0) == -1);
  closed = other;
  EXPECT_EQ(closed.Wait(0), 0);
}

TEST(Event, SharedLifeIsTraced) {
  RunTraced(FixtureRoot(), 5, [](TraceCapture& trace) {
    {
      CEvent first(false, false, "door");
      const CEvent second(true, true, "door");
      EXPECT_TRUE(first.Set() && second.Wait(0) == 0 && !second.IsSet()) << "the first mode was not kept";
      EXPECT_TRUE(first.Pulse() && first.Reset() && first.Create(true, true, nullptr));
      EXPECT_TRUE(first.Create(true, true, "unchanged"));
      CEvent third(false, false);
      third = second;
      EXPECT_TRUE(third.Close());
    }
    const CEvent again(false, true, "door");
    EXPECT_EQ(std::regex_replace(trace.Text(), std::regex("0x[0-9a-f]+"), "P"),
              "creating event P <door> (IsSignaled=0)\nrefCount for event P <door> incremented (IsSignaled=0)\n"
              "WARNING: manual setting mismatch for event P <door>\nSet event P <door> IsSignaled=0 --> IsSignaled=1\n"
              "Check event P <door> (IsSignaled=0)\nPulse event P <door> IsSignaled=0 --> IsSignaled=0\n"
              "Reset event P <door>: IsSignaled=0 --> IsSignaled=0\n"
              "Create event P <door>, changing attributes (IsSignaled=0,IsManual=0) --> (IsSignaled=1,IsManual=1)\n"
              "creating event P <anon> (IsSignaled=0)\nincr refcount on event P <door> (IsSignaled=1,IsManual=1)\n"
              "deleting event P <anon> (IsSignaled=0)\nClose event P <door> IsSignaled=1 --> IsSignaled=1\n"
              "decr refcount on event P <door> (IsSignaled=1)\ndecr refcount on event P <door> (IsSignaled=1)\n"
              "deleting event P <door> (IsSignaled=1)\ncreating event P <door> (IsSignaled=0)\n");
  });
}

TEST(Event, LivesAsLongAsAThreadIsInside) {
  for (int round = 0; round < 300; ++round) {  // a woken thread destroys it while Set returns
    auto event = std::make_unique<CEvent>(false, false);
    const std::jthread setter([event = event.get()] { event->Set(); });
    EXPECT_EQ(event->Wait(kWaitForever), 0);
    event.reset();
  }
  auto event = std::make_unique<CEvent>(false, false);
  auto late = std::async(std::launch::async, [event = event.get()] { return event->Wait(300); });
  while (event->Create(false, false, nullptr))
    std::this_thread::yield();
  std::thread cancelled([event = event.get()] { event->Wait(kWaitForever); });
  pthread_cancel(cancelled.native_handle());
  cancelled.join();
  event.reset();  // hangs when the cancelled thread still counts as waiting
  EXPECT_EQ(late.get(), 102);
}

TEST(Event, NamedHandlesComeAndGoFromManyThreads) {
  const auto work = [] {
    for (int round = 0; round < 300; ++round) {
      CEvent event(false, false, "busy");
      CEvent shared(false, true);
      shared = event;
      EXPECT_TRUE(shared.Set() && event.Wait(0) != -1);
      event.IsSet();
      event.Create(false, round % 2 == 0, nullptr);
      EXPECT_TRUE(event.Close());
    }
  };
  std::thread threads[] = {std::thread(work), std::thread(work), std::thread(work)};
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_TRUE(CEvent(true, true, "busy").IsSet()) << "a reference was lost";
  EXPECT_TRUE(CEvent(false, true, "until exit").IsSet());
}
