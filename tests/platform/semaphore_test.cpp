#include "platform/semaphore.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <climits>
#include <csignal>
#include <future>
#include <memory>
#include <thread>

#include "platform/thread_calls.h"

TEST(Semaphore, CountsWhatIsGivenAndTaken) {
  CSemaphore semaphore;
  EXPECT_FALSE(semaphore.Delete() || semaphore.Release(1));
  EXPECT_EQ(semaphore.Wait(kWaitForever), -1);
  ASSERT_TRUE(semaphore.Create(0, 5, nullptr));
  EXPECT_EQ(semaphore.Wait(0), 102);
  EXPECT_FALSE(semaphore.Release(0) || semaphore.Release(-1));
  EXPECT_TRUE(semaphore.Release(2));
  EXPECT_EQ(semaphore.Wait(kWaitForever), 0);
  EXPECT_EQ(semaphore.Wait(1), 0);
  EXPECT_EQ(semaphore.Wait(0), 102);
  ASSERT_TRUE(semaphore.Create(3, 1, nullptr)) << "an initial count above the maximum";
  EXPECT_EQ(semaphore.Wait(0), 0);
  EXPECT_EQ(semaphore.Wait(0), 102);
  EXPECT_TRUE(semaphore.Create(SEM_VALUE_MAX, SEM_VALUE_MAX, nullptr));
  EXPECT_FALSE(semaphore.Release(LONG_MAX)) << "the count cannot rise";
  for (const auto& [initial, maximum] : {std::pair{-1L, 5L}, {0L, -1L}, {0L, 1L + SEM_VALUE_MAX}, {0L, 1L << 33}}) {
    EXPECT_FALSE(semaphore.Create(initial, maximum, nullptr)) << initial << " " << maximum;
    EXPECT_FALSE(semaphore.Delete());
  }
}

TEST(Semaphore, TimeOutIsRoundedUpToWholeSeconds) {
  CSemaphore semaphore;
  ASSERT_TRUE(semaphore.Create(0, 1, nullptr));
  thread_calls::shortSleeps = true;
  for (const auto& [timeoutMs, seconds] : {std::pair{2500u, 3}, {1000u, 1}, {1u, 1}, {0u, 0}}) {
    thread_calls::slept = 0;
    EXPECT_EQ(semaphore.Wait(timeoutMs), 102);
    EXPECT_EQ(thread_calls::slept, seconds) << timeoutMs;
  }
  thread_calls::shortSleeps = false;
}

TEST(Semaphore, InterruptedWaitFailsAndReleaseEndsABlockedOne) {
  CSemaphore semaphore;
  ASSERT_TRUE(semaphore.Create(0, 1, nullptr));
  struct sigaction action = {};
  struct sigaction before = {};
  action.sa_handler = [](int) {};
  ASSERT_EQ(::sigaction(SIGUSR1, &action, &before), 0);
  std::promise<int> interrupted;
  std::thread waiter([&] { interrupted.set_value(semaphore.Wait(kWaitForever)); });
  std::future<int> result = interrupted.get_future();
  while (result.wait_for(std::chrono::milliseconds(1)) != std::future_status::ready) {
    pthread_kill(waiter.native_handle(), SIGUSR1);
  }
  waiter.join();
  EXPECT_EQ(result.get(), -1);
  ::sigaction(SIGUSR1, &before, nullptr);

  std::future<int> blocked = std::async(std::launch::async, [&] { return semaphore.Wait(kWaitForever); });
  EXPECT_TRUE(semaphore.Release(1));
  EXPECT_EQ(blocked.get(), 0);
}

TEST(Semaphore, NameIsSharedUntilItsLastHandleGoes) {
  CSemaphore first;
  ASSERT_TRUE(first.Create(0, 5, "pool"));
  {
    CSemaphore second;
    ASSERT_TRUE(second.Create(4, 5, "pool")) << "joins: the counts are dropped";
    EXPECT_EQ(second.Wait(0), 102);
    EXPECT_TRUE(first.Release(2));
    EXPECT_EQ(second.Wait(0), 0);
    CSemaphore third;
    ASSERT_TRUE(third.Create(0, 5, "pool"));
    EXPECT_FALSE(third.Create(0, 5, nullptr)) << "what it had is shared";
    EXPECT_EQ(third.Wait(0), -1);
  }
  EXPECT_EQ(first.Wait(0), 0) << "the others took the semaphore with them";
  EXPECT_TRUE(first.Delete());
  ASSERT_TRUE(first.Create(1, 1, "pool"));
  EXPECT_EQ(first.Wait(0), 0) << "the name outlived its last handle";
  EXPECT_TRUE(first.Create(1, 1, "pool"));
  EXPECT_EQ(first.Wait(0), 0) << "a sole handle starts anew";
}
