#include "platform/critical_section.h"

#include <gtest/gtest.h>

#include <thread>

TEST(CriticalSection, NestsAndKeepsOthersOut) {
  CCriticalSection section;
  int counter = 0;
  const auto work = [&] {
    for (int round = 0; round < 2000; ++round) {
      section.Enter();
      section.Enter();
      section.Leave();
      ++counter;  // still entered once
      section.Leave();
      section.Leave();  // no longer the owner: must not let a third one in
    }
    const CCriticalSectionLock lock(section);
    CCriticalSection::CleanupHandlerForCritSecMutex(&section);
  };
  std::thread threads[] = {std::thread(work), std::thread(work), std::thread(work)};
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(counter, 6000);
}
