#pragma once

#include <atomic>

// The test program carries its own versions of some system calls. They pass on to the system's, but count, and fail or
// shorten what the calling thread asks them to.
namespace thread_calls {

enum class Failing { kNothing, kSetClock, kCondInit, kMutexInit };

// Threads that have come to wait on a condition so far, and those that have left it again by being woken or late. Both
// change while the mutex of the condition is held.
inline std::atomic<int> entered = 0;
inline std::atomic<int> left = 0;

// Of the calling thread alone
inline thread_local Failing failing = Failing::kNothing;  // once, with EAGAIN
inline thread_local bool shortSleeps = false;             // 1 ms in place of each
inline thread_local int slept = 0;                        // whole seconds asked for while sleeps are short

}  // namespace thread_calls
