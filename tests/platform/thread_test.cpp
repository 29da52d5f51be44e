#include "platform/thread.h"

#include <regex>

#include "platform/event.h"
#include "support/trace_capture.h"

namespace {

// What a worker works on.
struct Work {
  CEvent proceed{false, true}, finished{false, true}, unwound{false, true};
};

// Goes on for a while after it was let off, so that whoever does not wait for it is found out.
void* RunWork(void* argument) {
  auto* work = static_cast<Work*>(argument);
  const std::unique_ptr<Work, void (*)(Work*)> signal(work, [](Work* ended) { ended->unwound.Set(); });
  work->proceed.Wait(kWaitForever);
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  work->finished.Set();
  return argument;
}

bool StartWork(CThread& thread, Work& work, bool waitable, unsigned long priority = 0) {
  return thread.Start(RunWork, &work, priority, false, 4096, 0, waitable);
}

}  // namespace

TEST(Thread, JoinableWorkerIsWaitedForUnlessLetGo) {
  Work works[3];
  for (Work& work : works)
    work.proceed.Set();
  {
    CThread thread;
    EXPECT_TRUE(StartWork(thread, works[0], true) && thread.IsAlive() && StartWork(thread, works[1], true));
    EXPECT_TRUE(works[0].finished.IsSet()) << "the next Start did not join the earlier thread";
    EXPECT_TRUE(thread.WaitForTermination(1) && works[1].finished.IsSet() && !thread.IsAlive());
    EXPECT_TRUE(StartWork(thread, works[2], true));
  }
  EXPECT_TRUE(works[2].finished.IsSet()) << "the destructor did not join";
  Work work;
  {
    CThread thread;
    thread.SetKillAliveThread(false);
    EXPECT_TRUE(StartWork(thread, work, true));
  }
  work.proceed.Set();
  EXPECT_EQ(work.unwound.Wait(kWaitForever), 0);
}

TEST(Thread, StepsAreTraced) {
  RunTraced(FixtureRoot(), 4, [](TraceCapture& trace) {
    Work work;
    CThread thread;
    EXPECT_TRUE(!StartWork(thread, work, true, 1000) && thread.WaitForTermination(kWaitForever));
    thread.SetKillAliveThread(false);
    EXPECT_TRUE(StartWork(thread, work, false, 63) && !thread.WaitForTermination(5000) && thread.Kill());
    EXPECT_EQ(work.unwound.Wait(kWaitForever), 0) << "not cancelled";
    work.proceed.Set();
    EXPECT_TRUE(StartWork(thread, work, false));
    while (thread.IsAlive())
      std::this_thread::yield();
    EXPECT_TRUE(thread.Kill()) << "of one that has ended: its identifier may be that of another thread by now";
    EXPECT_TRUE(StartWork(thread, work, true) && thread.Kill() && !thread.Kill());
    EXPECT_EQ(
        std::regex_replace(trace.Text(), std::regex("[0-9A-F]{8}(?![0-9A-F])|pstat=.*"), "T"),
        "CThread::Kill: Try to kill the Thread = 0xT\nCThread::Kill: Thread = 0x0T doesn't exist !\n"
        "pthread_attr_init: 0\nThreadPrio=1000\npthread_attr_setschedparam failed: error=22 priority=1000\n"
        "CThread::WaitForTermination: Thread = 0x0T doesn't exist !\npthread_attr_init: 0\nThreadPrio=63\n"
        "CThread::Start: thread=0xT created, Prio=63, Waitable=0, StackSize=0x1000\n"
        "CThread::WaitForTermination: WARNING: can't wait for Thread = 0xT termination with timeout\n"
        "CThread::WaitForTermination: WARNING: Can't wait for detached thread 0xT\n"
        "CThread::Kill: Try to kill the Thread = 0xT\nCThread::Kill: Try to kill a non-joinable Thread = 0x0T\n"
        "CThread::Kill: Killing a non-joinable thread 0xT\n"
        "CThread::Kill: a non-joinable thread 0xT cancel invoked\n"
        "pthread_attr_init: 0\nThreadPrio=0\nCThread::Start: thread=0xT created, Prio=0, Waitable=0, StackSize=0x1000\n"
        "CThread::Kill: Try to kill the Thread = 0xT\nCThread::Kill: Try to kill a non-joinable Thread = 0x0T\n"
        "pthread_attr_init: 0\nThreadPrio=0\nCThread::Start: thread=0xT created, Prio=0, Waitable=1, StackSize=0x1000\n"
        "CThread::Kill: Try to kill the Thread = 0xT\nCThread::Kill: Try to join a joinable Thread = 0xT\n"
        "CThread::Kill: a joinable Thread = 0xT has terminated, T\n"
        "CThread::Kill: Try to kill the Thread = 0xT\nCThread::Kill: Thread = 0x0T doesn't exist !\n");
  });
}
