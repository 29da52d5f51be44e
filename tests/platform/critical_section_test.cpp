#include "platform/critical_section.h"

#include <gtest/gtest.h>

#include <memory>
#include <thread>

TEST(CriticalSection, NestsAndKeepsOthersOut) {
  CCriticalSection section;
  int counter = 0;
  const auto work = [&] {
    for (int round = 0; round < 2000; ++round) {
      section.Enter();
      section.Enter();
      section.Enter();
      section.Leave();
      section.Leave();
      ++counter;  // still entered once
      section.Leave();
      section.Leave();  // not the owner any more: must not let a third one in
    }
  };
  std::thread threads[] = {std::thread(work), std::thread(work), std::thread(work)};
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(counter, 6000);
}

TEST(CriticalSection, CancelledOwnerGivesItBack) {
  auto section = std::make_unique<CCriticalSection>();
  pthread_t owner = 0;
  const auto body = [](void* argument) -> void* {
    static_cast<CCriticalSection*>(argument)->Enter();
    const CCriticalSectionLock lock(*static_cast<CCriticalSection*>(argument));
    pthread_cleanup_push(CCriticalSection::CleanupHandlerForCritSecMutex, argument);
    pthread_cancel(pthread_self());
    pthread_testcancel();
    pthread_cleanup_pop(0);
    return nullptr;
  };
  ASSERT_EQ(pthread_create(&owner, nullptr, body, section.get()), 0);
  ASSERT_EQ(pthread_join(owner, nullptr), 0);
  section->Enter();  // hangs when it was not given back
  section.reset();   // destroyed by its owner
}
