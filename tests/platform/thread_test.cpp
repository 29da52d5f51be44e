#include "platform/thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>

#include "platform/event.h"
#include "support/fixture_root.h"
#include "support/trace_capture.h"

namespace {

// What a worker works on.
struct Work {
  CEvent proceed{false, true};
  CEvent ended{false, true};
  std::atomic<bool> isEnding = false;
};

struct EndSignal {
  explicit EndSignal(Work& w) : work(w) {}
  ~EndSignal() { work.ended.Set(); }
  Work& work;
};

// Goes on for a while after it was let off, so that whoever does not wait for it is found out.
void* RunWork(void* argument) {
  auto& work = *static_cast<Work*>(argument);
  const EndSignal signal(work);
  work.proceed.Wait(kWaitForever);
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  work.isEnding = true;
  return argument;
}

bool StartWork(CThread& thread, Work& work, bool waitable) {
  return thread.Start(RunWork, &work, 0, false, 0, 0, waitable);
}

// The lines since the last call, with T for the thread's number and P for a result.
std::string TakeLines(TraceCapture& trace, pthread_t thread) {
  char number[16];
  std::snprintf(number, sizeof(number), "%08X", static_cast<unsigned int>(thread));
  std::string lines;
  for (std::string line : trace.Lines()) {
    for (size_t at = line.rfind(number); at != std::string::npos; at = line.rfind(number))
      line.replace(at, 8, "T");
    lines += line.substr(0, line.find("pstat=0x")) + "\n";
  }
  trace.Clear();
  return lines;
}

}  // namespace

TEST(Thread, JoinableWorkerIsWaitedFor) {
  Work first;
  Work second;
  Work third;
  {
    CThread thread;
    ASSERT_TRUE(StartWork(thread, first, true));
    EXPECT_TRUE(thread.IsAlive());
    first.proceed.Set();
    ASSERT_TRUE(StartWork(thread, second, true));
    EXPECT_TRUE(first.isEnding) << "the next Start did not join the earlier thread";
    second.proceed.Set();
    EXPECT_TRUE(thread.WaitForTermination(1));
    EXPECT_TRUE(second.isEnding);
    EXPECT_TRUE(!thread.IsAlive() && thread.GetHandle() == 0);
    ASSERT_TRUE(StartWork(thread, third, true));
    third.proceed.Set();
  }
  EXPECT_TRUE(third.isEnding) << "the destructor did not join";
}

TEST(Thread, WorkerThatIsLetGoRunsOn) {
  Work work;
  {
    CThread thread;
    thread.SetKillAliveThread(false);
    ASSERT_TRUE(StartWork(thread, work, true));
  }
  work.proceed.Set();
  EXPECT_EQ(work.ended.Wait(kWaitForever), 0);
  EXPECT_TRUE(work.isEnding);
}

TEST(Thread, DetachedWorkerIsCancelledAndAnEndedOneIsNot) {
  Work cancelled;
  CThread thread;
  ASSERT_TRUE(StartWork(thread, cancelled, false));
  EXPECT_FALSE(thread.WaitForTermination(kWaitForever));
  EXPECT_TRUE(thread.Kill());
  EXPECT_EQ(cancelled.ended.Wait(kWaitForever), 0);
  EXPECT_FALSE(cancelled.isEnding || thread.IsAlive());

  Work ended;
  ended.proceed.Set();
  ASSERT_TRUE(StartWork(thread, ended, false));
  while (thread.IsAlive())
    std::this_thread::yield();
  // The system is free to give the identifier of the ended thread to this one, which must not be cancelled.
  Work other;
  CThread otherThread;
  ASSERT_TRUE(StartWork(otherThread, other, true));
  EXPECT_TRUE(thread.Kill());
  other.proceed.Set();
  EXPECT_TRUE(otherThread.WaitForTermination(kWaitForever));
  EXPECT_TRUE(other.isEnding);
}

TEST(Thread, StepsAreTraced) {
  const FixtureRoot root;
  root.Run([] {
    TraceCapture trace(4);
    Work work;
    work.proceed.Set();
    CThread thread;
    EXPECT_FALSE(thread.Kill());
    EXPECT_TRUE(thread.WaitForTermination(kWaitForever));
    EXPECT_FALSE(thread.Start(RunWork, &work, 1000, false, 0, 0, true));
    EXPECT_EQ(TakeLines(trace, 0),
              "CThread::Kill: Try to kill the Thread = 0xT\n"
              "CThread::Kill: Thread = 0x0T doesn't exist !\n"
              "CThread::WaitForTermination: Thread = 0x0T doesn't exist !\n"
              "CThread::Kill: Try to kill the Thread = 0xT\n"
              "CThread::Kill: Thread = 0x0T doesn't exist !\n"
              "pthread_attr_init: 0\n"
              "ThreadPrio=1000\n"
              "pthread_attr_setschedparam failed: error=22 priority=1000\n");

    trace.Clear();
    thread.SetKillAliveThread(false);
    ASSERT_TRUE(thread.Start(RunWork, &work, 63, false, 4096, 0, true));
    pthread_t id = thread.GetHandle();
    EXPECT_TRUE(thread.WaitForTermination(5000));
    EXPECT_EQ(TakeLines(trace, id),
              "pthread_attr_init: 0\n"
              "ThreadPrio=63\n"
              "CThread::Start: thread=0xT created, Prio=63, Waitable=1, StackSize=0x1000\n"
              "CThread::WaitForTermination: WARNING: can't wait for Thread = 0xT termination with timeout\n"
              "CThread::WaitForTermination: a joinable Thread = 0xT has terminated, \n");

    ASSERT_TRUE(StartWork(thread, work, true));
    id = thread.GetHandle();
    trace.Clear();
    EXPECT_TRUE(thread.Kill());
    EXPECT_EQ(TakeLines(trace, id),
              "CThread::Kill: Try to kill the Thread = 0xT\n"
              "CThread::Kill: Try to join a joinable Thread = 0xT\n"
              "CThread::Kill: a joinable Thread = 0xT has terminated, \n");

    Work endless;
    ASSERT_TRUE(StartWork(thread, endless, false));
    id = thread.GetHandle();
    trace.Clear();
    EXPECT_FALSE(thread.WaitForTermination(kWaitForever));
    EXPECT_TRUE(thread.Kill());
    EXPECT_EQ(TakeLines(trace, id),
              "CThread::WaitForTermination: WARNING: Can't wait for detached thread 0xT\n"
              "CThread::Kill: Try to kill the Thread = 0xT\n"
              "CThread::Kill: Try to kill a non-joinable Thread = 0x0T\n"
              "CThread::Kill: Killing a non-joinable thread 0xT\n"
              "CThread::Kill: a non-joinable thread 0xT cancel invoked\n");
    EXPECT_EQ(endless.ended.Wait(kWaitForever), 0);
  });
}
