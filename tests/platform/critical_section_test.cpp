#include "platform/critical_section.h"

#include <gtest/gtest.h>

#include <future>
#include <thread>

TEST(CriticalSection, StaysWithItsOwnerUntilLeftAsOftenAsEntered) {
  CCriticalSection section;
  section.Enter();
  section.Enter();
  {
    const std::jthread stranger([&section] { section.Leave(); });
  }
  section.Leave();
  auto next = std::async(std::launch::async, [&section] { const CCriticalSectionLock lock(section); });
  EXPECT_EQ(next.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout) << "still entered once";
  section.Enter();
  CCriticalSection::CleanupHandlerForCritSecMutex(&section);
  next.wait();
}
