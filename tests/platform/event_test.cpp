#include "platform/event.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <regex>
#include <thread>

#include "platform/thread_calls.h"
#include "support/fixture_root.h"
#include "support/trace_capture.h"

using thread_calls::Failing;

namespace {

// Made before main and destroyed after it.
const CEvent untilExit(true, true, "until exit");

// Starts a thread that waits, and returns when it is blocked: whoever has the mutex of the event from now on finds it
// waiting.
std::future<int> StartWaiting(const CEvent& event, uint32_t timeoutMs = kWaitForever) {
  const int before = thread_calls::entered;
  auto result = std::async(std::launch::async, [&event, timeoutMs] { return event.Wait(timeoutMs); });
  while (thread_calls::entered == before)
    std::this_thread::yield();
  return result;
}

void ExpectRefusal(CEvent& event) {
  EXPECT_FALSE(event.Set() || event.Reset() || event.Pulse() || event.IsSet() || event.Close());
  EXPECT_FALSE(event.Create(true, true, nullptr));
  EXPECT_EQ(event.Wait(0), -1);
  EXPECT_EQ(event.Wait(kWaitForever), -1);
}

void* WaitForever(void* event) {
  static_cast<const CEvent*>(event)->Wait(kWaitForever);
  return nullptr;
}

}  // namespace

TEST(Event, AutoResetSatisfiesOneWaitAndManualResetEveryWait) {
  const CEvent once(false, false);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(once.Wait(30), 102);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(30));
  EXPECT_TRUE(once.Set() && once.Set() && once.IsSet());
  EXPECT_EQ(once.Wait(0), 0);
  EXPECT_EQ(once.Wait(0), 102);
  std::future<int> woken = StartWaiting(once);
  EXPECT_TRUE(once.Set());
  EXPECT_EQ(woken.get(), 0);
  EXPECT_FALSE(once.IsSet());

  const CEvent always(true, true);
  EXPECT_EQ(always.Wait(kWaitForever), 0);
  EXPECT_EQ(always.Wait(0), 0);
  EXPECT_TRUE(always.Reset());
  EXPECT_EQ(always.Wait(0), 102);
}

TEST(Event, PulseReachesThoseWhoWaitNow) {
  const CEvent all(false, true);
  EXPECT_TRUE(all.Pulse());
  EXPECT_EQ(all.Wait(0), 102);
  std::future<int> waits[] = {StartWaiting(all), StartWaiting(all, 60'000), StartWaiting(all)};
  EXPECT_TRUE(all.Pulse());
  for (std::future<int>& wait : waits)
    EXPECT_EQ(wait.get(), 0);
  EXPECT_FALSE(all.IsSet());

  const CEvent one(false, false);
  const int before = thread_calls::left;
  std::future<int> both[] = {StartWaiting(one), StartWaiting(one)};
  EXPECT_TRUE(one.Pulse());
  while (thread_calls::left == before)
    std::this_thread::yield();
  EXPECT_TRUE(one.Set());
  for (std::future<int>& wait : both)
    EXPECT_EQ(wait.get(), 0);
  EXPECT_EQ(one.Wait(0), 102) << "the pulse released both";
}

TEST(Event, ClosedHandleRefusesWhileOthersSeeItSignalled) {
  CEvent closed(false, false, "door");
  const CEvent other(false, false, "door");
  std::future<int> wait = StartWaiting(closed);
  EXPECT_FALSE(closed.Create(false, false, nullptr)) << "a thread waits";
  EXPECT_TRUE(closed.Close());
  EXPECT_EQ(wait.get(), 0);
  EXPECT_TRUE(other.Set());
  EXPECT_FALSE(closed.IsOpen());
  EXPECT_TRUE(closed.Open("door", 0, false));
  ExpectRefusal(closed);
  EXPECT_EQ(other.Wait(0), 0);
  closed = other;
  EXPECT_TRUE(closed.Set());
  EXPECT_TRUE(other.IsSet());
}

TEST(Event, SharedLifeIsTraced) {
  const FixtureRoot root;
  root.Run([] {
    const TraceCapture trace(5);
    {
      CEvent first(false, false, "door");
      const CEvent second(true, true, "door");
      EXPECT_TRUE(first.Set());
      EXPECT_EQ(second.Wait(0), 0) << "the first mode was not kept";
      EXPECT_FALSE(second.IsSet());
      EXPECT_TRUE(first.Pulse() && first.Reset() && first.Create(true, true, nullptr));
      EXPECT_TRUE(first.Create(true, true, "unchanged"));
      CEvent third(false, false);
      third = second;
      EXPECT_TRUE(third.Close());
    }
    EXPECT_FALSE(CEvent(false, true, "door").IsSet()) << "the name outlived its last handle";
    std::string lines;
    for (const std::string& line : trace.Lines())
      lines += std::regex_replace(line, std::regex("0x[0-9a-f]+"), "P") + "\n";
    EXPECT_EQ(lines,
              "creating event P <door> (IsSignaled=0)\n"
              "refCount for event P <door> incremented (IsSignaled=0)\n"
              "WARNING: manual setting mismatch for event P <door>\n"
              "Set event P <door> IsSignaled=0 --> IsSignaled=1\n"
              "Check event P <door> (IsSignaled=0)\n"
              "Pulse event P <door> IsSignaled=0 --> IsSignaled=0\n"
              "Reset event P <door>: IsSignaled=0 --> IsSignaled=0\n"
              "Create event P <door>, changing attributes (IsSignaled=0,IsManual=0) --> (IsSignaled=1,IsManual=1)\n"
              "creating event P <anon> (IsSignaled=0)\n"
              "incr refcount on event P <door> (IsSignaled=1,IsManual=1)\n"
              "deleting event P <anon> (IsSignaled=0)\n"
              "Close event P <door> IsSignaled=1 --> IsSignaled=1\n"
              "decr refcount on event P <door> (IsSignaled=1)\n"
              "decr refcount on event P <door> (IsSignaled=1)\n"
              "deleting event P <door> (IsSignaled=1)\n"
              "creating event P <door> (IsSignaled=0)\n"
              "Check event P <door> (IsSignaled=0)\n"
              "deleting event P <door> (IsSignaled=0)\n");
  });
}

TEST(Event, FailedCreationLeavesAHandleWithoutEvent) {
  const FixtureRoot root;
  root.Run([] {
    const TraceCapture trace(3);
    const std::pair<Failing, const char*> rows[] = {
        {Failing::kSetClock,
         "pthread_condattr_setclock(): ## ERROR ##: Set CLOCK_MONOTONIC failed (ret=11) for event "},
        {Failing::kCondInit, "pthread_cond_init(), CLOCK_MONOTONIC: ## ERROR ##: failed (ret=11) on event "},
        {Failing::kMutexInit, "pthread_mutex_init(), CLOCK_MONOTONIC: ## ERROR ##: failed (ret=11) on event "},
    };
    for (const auto& [failing, text] : rows) {
      thread_calls::failing = failing;
      CEvent failed(true, true, "door");
      EXPECT_EQ(trace.Count(text), 1) << text;
      ExpectRefusal(failed);
      CEvent assigned(true, true);
      assigned = failed;
      ExpectRefusal(assigned);
      // Hangs when the lock is still held, and joins what was given up when the name is still there.
      EXPECT_TRUE(std::async(std::launch::async, [] { return CEvent(true, true, "door").IsSet(); }).get());
    }
    EXPECT_EQ(trace.Count(" <anon> (IsSignaled=1)"), 3);
  });
}

TEST(Event, WokenThreadMayDestroyTheEventAtOnce) {
  for (int round = 0; round < 300; ++round) {
    auto event = std::make_unique<CEvent>(false, false);
    std::thread setter([event = event.get()] { event->Set(); });
    EXPECT_EQ(event->Wait(kWaitForever), 0);
    event.reset();
    setter.join();
  }
}

TEST(Event, LastHandleGoesAfterTheWaiters) {
  thread_calls::shortSleeps = true;
  auto event = std::make_unique<CEvent>(false, false);
  const int before = thread_calls::left;
  std::future<int> wait = StartWaiting(*event, 40);
  event.reset();
  EXPECT_EQ(thread_calls::left, before + 1);
  EXPECT_EQ(wait.get(), 102);
  thread_calls::shortSleeps = false;
}

TEST(Event, CancelledWaiterLeavesNothingBehind) {
  CEvent event(false, false);
  const int before = thread_calls::entered;
  pthread_t waiter = 0;
  ASSERT_EQ(pthread_create(&waiter, nullptr, WaitForever, &event), 0);
  while (thread_calls::entered == before)
    std::this_thread::yield();
  ASSERT_EQ(pthread_cancel(waiter), 0);
  void* result = nullptr;
  ASSERT_EQ(pthread_join(waiter, &result), 0);
  EXPECT_EQ(result, PTHREAD_CANCELED);
  EXPECT_TRUE(event.Create(true, false, nullptr)) << "it still counts as waiting";
}

TEST(Event, NamedHandlesComeAndGoFromManyThreads) {
  const auto work = [] {
    for (int round = 0; round < 300; ++round) {
      CEvent event(false, false, "busy");
      CEvent shared(false, true);
      shared = event;
      shared.Set();
      event.IsSet();
      event.Wait(0);
      event.Create(false, round % 2 == 0, nullptr);
      event.Close();
    }
  };
  std::thread threads[] = {std::thread(work), std::thread(work), std::thread(work)};
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_TRUE(CEvent(true, true, "busy").IsSet()) << "a reference was lost";
  EXPECT_TRUE(CEvent(false, true, "until exit").IsSet());
}
