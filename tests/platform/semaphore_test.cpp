#include "platform/semaphore.h"

#include <gtest/gtest.h>

#include <chrono>
#include <climits>
#include <future>

TEST(Semaphore, CountsWhatIsGivenAndTaken) {
  CSemaphore semaphore;
  EXPECT_FALSE(semaphore.Delete() || semaphore.Release(1) || semaphore.Wait(0) != -1);
  ASSERT_TRUE(semaphore.Create(0, 5, nullptr));
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(semaphore.Wait(1001), 102);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(2)) << "not rounded up";
  auto blocked = std::async(std::launch::async, [&semaphore] { return semaphore.Wait(kWaitForever); });
  EXPECT_TRUE(semaphore.Release(2));
  EXPECT_TRUE(blocked.get() == 0 && semaphore.Wait(1) == 0 && semaphore.Wait(0) == 102);
  ASSERT_TRUE(semaphore.Create(3, 1, nullptr)) << "an initial count above the maximum";
  EXPECT_TRUE(semaphore.Wait(0) == 0 && semaphore.Wait(0) == 102);
  EXPECT_TRUE(semaphore.Create(SEM_VALUE_MAX, SEM_VALUE_MAX, nullptr));
  EXPECT_FALSE(semaphore.Release(0) || semaphore.Release(LONG_MAX));
  for (const auto& [initial, maximum] : {std::pair{-1L, 5L}, {0L, -1L}, {0L, 1L + SEM_VALUE_MAX}, {0L, 1L << 33}})
    EXPECT_FALSE(semaphore.Create(initial, maximum, nullptr) || semaphore.Delete()) << initial << " " << maximum;
}

TEST(Semaphore, NameIsSharedUntilItsLastHandleGoes) {
  CSemaphore first;
  ASSERT_TRUE(first.Create(0, 5, "pool"));
  {
    CSemaphore second;
    CSemaphore third;
    ASSERT_TRUE(second.Create(4, 5, "pool") && third.Create(4, 5, "pool"));
    EXPECT_EQ(second.Wait(0), 102) << "whoever joins brings no count";
    EXPECT_TRUE(first.Release(2) && second.Wait(0) == 0);
    EXPECT_FALSE(third.Create(0, 5, nullptr)) << "what it had is shared";
    EXPECT_EQ(third.Wait(0), -1);
  }
  EXPECT_EQ(first.Wait(0), 0) << "the others took the semaphore with them";
  EXPECT_TRUE(first.Create(1, 1, "pool") && first.Wait(0) == 0) << "a sole handle starts anew";
}
